#include "compiled/compile.hpp"

#include "compiled/dispatch.hpp"
#include "compiled/flatten.hpp"
#include "compiled/key.hpp"
#include "compiled/order.hpp"
#include "compiled/run.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <utility>

namespace compiled
{

namespace
{

// A map costs about as much as one or two rules.
constexpr std::size_t smallestRun = 4;

constexpr Field inPort{Header::InPort, 0, 16};
constexpr Field outPort{Header::OutPort, 0, 16};

MaskedField whole(const Field& field)
{
    return {field, Bytes(field.size, 0xff)};
}

// The name as a key has it.
void appendName(Bytes& key, const std::string& name)
{
    key.insert(key.end(), name.begin(), name.end());
    key.resize((key.size() + inPort.size - 1) / inPort.size * inPort.size);
}

// The same for the same text, whatever else there is.
std::string nameFor(const std::string& text)
{
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text)
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001b3;
    std::string name;
    for (int shift = 60; shift >= 0; shift -= 4)
        name += "0123456789abcdef"[hash >> static_cast<unsigned>(shift) & 15U];
    return name;
}

// Whether all is known about the rules that frames can come to from this chain.
bool isKnownInFull(const ebtables::Table& table, const ebtables::Chain& from, std::set<std::string>& seen)
{
    return std::ranges::all_of(from.rules, [&](const ebtables::TableRule& rule) {
        if (!rule.rule)
            return false;
        const std::string& target = rule.rule->target;
        const ebtables::Chain* next = ebtables::isStandardTarget(target) ? nullptr : table.find(target);
        return next == nullptr || !seen.insert(target).second || isKnownInFull(table, *next, seen);
    });
}

class Compiler
{
public:
    explicit Compiler(const ebtables::Table& table) : m_table(table) {}

    Program run()
    {
        for (const auto& [name, hook] : {std::pair("INPUT", Hook::Input), std::pair("FORWARD", Hook::Forward)}) {
            const ebtables::Chain* chain = m_table.find(name);
            m_program.chains.push_back({name, hook, chain != nullptr && chain->policy == "DROP", {}});
            if (chain != nullptr)
                m_waiting.push_back(chain);
        }
        while (!m_waiting.empty()) {
            const ebtables::Chain& chain = *m_waiting.back();
            m_waiting.pop_back();
            setSteps(chain.name, stepsOf(chain.name, flatten(m_table, chain)));
        }
        return std::move(m_program);
    }

private:
    Chain& chainNamed(const std::string& name)
    {
        const auto found = std::ranges::find(m_program.chains, name, &Chain::name);
        return found != m_program.chains.end() ? *found : m_program.chains.emplace_back(Chain{name, {}, false, {}});
    }

    void setSteps(const std::string& name, std::vector<Step> steps) { chainNamed(name).steps = std::move(steps); }

    std::vector<Step> stepsOf(const std::string& name, std::vector<Item> items)
    {
        const Dispatched dispatched = dispatch(std::move(items));
        std::vector<Step> steps;
        addDispatch(name, dispatched, true, steps);
        addDispatch(name, dispatched, false, steps);
        addRuns(name, dispatched.rest, steps);
        return steps;
    }

    // The step that leads to the classes with both ports, or to those with one.
    void addDispatch(const std::string& name, const Dispatched& dispatched, bool both, std::vector<Step>& steps)
    {
        Map map;
        map.name = name + (both ? "/ports" : "/port");
        map.sizes.assign(both ? 2 : 1, inPort.size);
        for (const PortClass& here : dispatched.classes) {
            if (here.out.empty() == both)
                continue;
            const std::string chain = name + "/" + here.in + (both ? "/" + here.out : "");
            Element element;
            appendName(element.first, here.in);
            if (both)
                appendName(element.first, here.out);
            element.last = element.first;
            element.verdict = {Verdict::Kind::Goto, chain};
            map.elements.push_back(std::move(element));
            std::vector<Step> inside;
            addRuns(chain, here.items, inside);
            m_program.chains.push_back({chain, Hook::None, false, std::move(inside)});
        }
        if (map.elements.empty())
            return;
        LookUp lookUp{m_program.maps.size(), {whole(inPort)}};
        if (both)
            lookUp.key.push_back(whole(outPort));
        steps.push_back({{}, std::move(lookUp)});
        m_program.maps.push_back(std::move(map));
    }

    void addRuns(const std::string& chain, const std::vector<Item>& items, std::vector<Step>& steps)
    {
        std::vector<std::optional<RuleKey>> keys;
        keys.reserve(items.size());
        for (const Item& item : items)
            keys.push_back(keyOf(item.rule));
        const Surroundings with{m_program, [this](const ebtables::Rule& rule) { return loggingChain(rule); }};
        for (const Group& group : order(items, keys)) {
            if (group.name.empty() || group.items.size() < smallestRun) {
                for (const std::size_t index : group.items)
                    steps.push_back(plain(items[index]));
                continue;
            }
            std::vector<KeyedItem> run;
            run.reserve(group.items.size());
            for (const std::size_t index : group.items)
                run.push_back({items[index], *keys[index]});
            std::ranges::move(runOf(chain + "/" + group.name, run, with), std::back_inserter(steps));
        }
    }

    Step plain(const Item& item)
    {
        const std::string& target = item.rule.target;
        const ebtables::Chain* next = ebtables::isStandardTarget(target) ? nullptr : m_table.find(target);
        if (next != nullptr && m_reached.insert(target).second)
            m_waiting.push_back(next);
        return {{}, PlainRule{item.rule, item.origin}};
    }

    // One for each text, level and end. Its name says what it is for, so that other rules do not change it.
    std::string loggingChain(const ebtables::Rule& rule)
    {
        ebtables::Rule logs;
        logs.log = rule.log;
        logs.target = rule.target;
        const std::string name = "log/" + rule.target + "/" + nameFor(ebtables::toText(logs));
        if (m_logging.insert(name).second)
            m_program.chains.push_back({name, Hook::None, false, {{{}, PlainRule{logs, ebtables::noOrigin}}}});
        return name;
    }

    const ebtables::Table& m_table;
    Program m_program;
    std::vector<const ebtables::Chain*> m_waiting; // reached, not yet compiled
    std::set<std::string> m_reached;
    std::set<std::string> m_logging; // chains
};

} // namespace

const Chain* Program::find(const std::string& chain) const
{
    const auto found = std::ranges::find(chains, chain, &Chain::name);
    return found == chains.end() ? nullptr : &*found;
}

std::optional<Program> compile(const ebtables::Table& table)
{
    std::set<std::string> seen;
    for (const char* name : {"INPUT", "FORWARD"}) {
        if (const ebtables::Chain* chain = table.find(name); chain != nullptr && !isKnownInFull(table, *chain, seen))
            return std::nullopt;
    }
    return Compiler(table).run();
}

} // namespace compiled
