#include "compiled/compile.hpp"

#include "compiled/depth.hpp"
#include "compiled/dispatch.hpp"
#include "compiled/flatten.hpp"
#include "compiled/form.hpp"
#include "compiled/key.hpp"
#include "compiled/order.hpp"
#include "compiled/race.hpp"
#include "compiled/run.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <span>
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

// ---- when rules are worth a race

// Of those forms that a frame can meet all of, each adds a chain that leads to the next, and the kernel takes so many
// only. It follows every way that there is through them, of which each doubles the number.
constexpr std::size_t longestRaces[] = {11, 8, 5, 1};
constexpr std::size_t rulesPerForm = 4;  // a race asks each form
constexpr std::size_t mostKeyWords = 14; // the kernel has registers for two more, the place found before

bool canRace(const RuleKey& key)
{
    std::size_t words = 0;
    for (const Part part : key.parts)
        words += (fieldOf(part).size + 3U) / 4U;
    return words > 0 && words <= mostKeyWords;
}

bool isWorthARace(std::span<const std::optional<RuleKey>> keys, std::size_t longest)
{
    std::set<const RuleKey*, ByForm> forms;
    std::map<Family, std::size_t> ofFamily;
    std::size_t rules = 0;
    for (const std::optional<RuleKey>& key : keys) {
        if (!key || !canRace(*key))
            continue;
        ++rules;
        if (forms.insert(&*key).second && ++ofFamily[key->family] > longest)
            return false;
    }
    std::size_t others = 0;
    for (const auto& [family, count] : ofFamily)
        others = std::max(others, family == Family::Any ? 0 : count);
    return ofFamily[Family::Any] + others <= longest && forms.size() > 1 && rules >= rulesPerForm * forms.size() &&
           rules <= mostInRace;
}

// The name as a key has it.
void appendName(Bytes& key, const std::string& name)
{
    key.insert(key.end(), name.begin(), name.end());
    key.resize((key.size() + inPort.size - 1) / inPort.size * inPort.size);
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
    Compiler(const ebtables::Table& table, const Program* before, std::size_t longestRace)
        : m_table(table), m_longestRace(longestRace)
    {
        if (before != nullptr) {
            for (const Map& map : before->maps)
                m_mapsBefore.emplace(map.name, &map);
        }
    }

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
        addRules(name, dispatched.rest, steps);
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
            addRules(chain, here.items, inside);
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

    // The rules of a class, or those that belong to none.
    void addRules(const std::string& chain, const std::vector<Item>& items, std::vector<Step>& steps)
    {
        std::vector<std::optional<RuleKey>> keys;
        keys.reserve(items.size());
        for (const Item& item : items)
            keys.push_back(keyOf(item.rule));
        Rules rules{chain, items, keys, {}};
        if (!isWorthARace(keys, m_longestRace)) {
            addRuns(chain + "/", items, keys, steps);
            return;
        }
        // Those without a key stay between those before and those behind them.
        std::size_t first = 0;
        std::size_t stretch = 0;
        for (std::size_t i = 0; i <= items.size(); ++i) {
            if (i < items.size() && keys[i] && canRace(*keys[i]))
                continue;
            const std::string number = ++stretch == 1 ? "" : "-" + std::to_string(stretch);
            const auto theirs = std::span(rules.keys).subspan(first, i - first);
            if (isWorthARace(theirs, m_longestRace))
                addRace(chain + "/race" + number, rules, first, i, steps);
            else
                addRuns(chain + number + "/", std::span(items).subspan(first, i - first), theirs, steps);
            if (i < items.size())
                steps.push_back(plain(items[i]));
            first = i + 1;
        }
    }

    struct Rules {
        const std::string& chain;
        const std::vector<Item>& items;
        const std::vector<std::optional<RuleKey>>& keys;
        std::set<Family> asWritten; // those for which there is a chain with the rules as they are
    };

    void addRuns(const std::string& prefix, std::span<const Item> items, std::span<const std::optional<RuleKey>> keys,
                 std::vector<Step>& steps)
    {
        for (const Group& group : order(items, keys)) {
            if (group.name.empty() || group.items.size() < smallestRun) {
                for (const std::size_t index : group.items)
                    steps.push_back(plain(items[index]));
                continue;
            }
            std::vector<KeyedItem> run;
            run.reserve(group.items.size());
            for (const std::size_t index : group.items)
                run.push_back({&items[index], &*keys[index]});
            std::ranges::move(runOf(prefix + group.name, run, m_with), std::back_inserter(steps));
        }
    }

    void addRace(const std::string& name, Rules& rules, std::size_t first, std::size_t end, std::vector<Step>& steps)
    {
        std::vector<KeyedItem> items;
        items.reserve(end - first);
        for (std::size_t i = first; i < end; ++i)
            items.push_back({&rules.items[i], &*rules.keys[i]});
        const auto asWritten = [&](Family family) { return addAsWritten(rules, first, family); };
        std::ranges::move(raceOf(name, items, m_with, asWritten), std::back_inserter(steps));
    }

    // Who has left for the first such chain does not come to the place of a second one.
    std::string addAsWritten(Rules& rules, std::size_t first, Family family)
    {
        Chain chain;
        chain.name = rules.chain + (family == Family::Ip4 ? "/ip4" : "/ip6") + "-as-written";
        if (!rules.asWritten.insert(family).second)
            return chain.name;
        for (std::size_t i = first; i < rules.items.size(); ++i) {
            if (!rules.keys[i] || rules.keys[i]->family == Family::Any || rules.keys[i]->family == family)
                chain.steps.push_back(plain(rules.items[i]));
        }
        std::string name = chain.name;
        m_program.chains.push_back(std::move(chain));
        return name;
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
        const std::string name = "log/" + rule.target + "/" + shortNameFor(ebtables::toText(logs));
        if (m_logging.insert(name).second)
            m_program.chains.push_back({name, Hook::None, false, {{{}, PlainRule{logs, ebtables::noOrigin}}}});
        return name;
    }

    const ebtables::Table& m_table;
    const std::size_t m_longestRace;
    std::map<std::string, const Map*> m_mapsBefore;
    const Surroundings m_with{m_program, [this](const ebtables::Rule& rule) { return loggingChain(rule); },
                              [this](const std::string& name) {
                                  const auto found = m_mapsBefore.find(name);
                                  return found == m_mapsBefore.end() ? nullptr : found->second;
                              }};
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

std::optional<Program> compile(const ebtables::Table& table, const Program* before)
{
    std::set<std::string> seen;
    for (const char* name : {"INPUT", "FORWARD"}) {
        if (const ebtables::Chain* chain = table.find(name); chain != nullptr && !isKnownInFull(table, *chain, seen))
            return std::nullopt;
    }
    std::optional<Program> program;
    for (const std::size_t longestRace : longestRaces) {
        program = Compiler(table, before, longestRace).run();
        if (depthOf(*program) <= deepest)
            break;
    }
    return program;
}

} // namespace compiled
