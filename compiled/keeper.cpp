#include "compiled/keeper.hpp"

#include "compiled/depth.hpp"
#include "compiled/dispatch.hpp"
#include "compiled/flatten.hpp"
#include "compiled/known.hpp"
#include "compiled/remembered.hpp"
#include "compiled/section_maker.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace compiled
{

struct Keeper::Memory {
    struct ChainOfTable {
        KnownList rules;
        Dispatched dispatched;
    };
    std::uint64_t lastSerial = 0;
    Forms forms;
    Remembered<ChainOfTable> chains;    // by name
    Remembered<SectionMemory> sections; // by chain, of each of the limits
    Remembered<List<Element>> ports;    // by map
    Remembered<Chain> logs;
};

namespace
{

constexpr Field inPort{Header::InPort, 0, 16};
constexpr Field outPort{Header::OutPort, 0, 16};

// What the kernel may find too deep, from the quickest form for frames to the flattest. Of the forms of a race that a
// frame can meet all of, each adds a chain that leads to the next, and the kernel takes so many only. It follows every
// way that there is through them, of which each doubles the number.
struct Limits {
    std::size_t longestRace;
    bool inPages;
};
constexpr Limits allLimits[] = {{11, true}, {8, true}, {5, true}, {1, true}, {1, false}};

// The kernel looks a map up by its name, one name after the other: thousands of maps, as races of many classes would
// have, take seconds. So where there are many classes, a race needs more rules.
constexpr std::size_t fewClasses = 32;
constexpr std::size_t rulesPerForm = 4;
constexpr std::size_t rulesPerFormOfMany = 16;

// The name as a key has it.
void appendName(Bytes& key, std::string_view name)
{
    key.insert(key.end(), name.begin(), name.end());
    key.resize((key.size() + inPort.size - 1) / inPort.size * inPort.size);
}

// A chain's rules, as dispatch sorts them.
struct Divided {
    struct Class {
        std::string in;
        std::string out;
        Decided decided;
        RuleList rules;
    };
    std::vector<Class> classes;
    RuleList rest;
};

Dispatched dispatched(const KnownList& list)
{
    std::vector<const ebtables::Rule*> rules;
    rules.reserve(list.rules().size());
    for (const auto& rule : list.rules())
        rules.push_back(&rule->item.rule);
    return dispatch(rules);
}

Divided divide(const KnownList& list, const Dispatched& dispatched)
{
    const auto at = [&](const std::vector<std::size_t>& places) {
        RuleList found;
        found.rules.reserve(places.size());
        found.serials.reserve(places.size());
        for (const std::size_t place : places) {
            found.rules.push_back(list.rules()[place].get());
            found.serials.push_back(list.serials()[place]);
        }
        return found;
    };
    Divided divided;
    for (const PortClass& each : dispatched.classes)
        divided.classes.push_back({each.in, each.out, each.decided(), at(each.rules)});
    divided.rest = at(dispatched.rest);
    return divided;
}

class Compiler
{
public:
    Compiler(Keeper::Memory& memory, const ebtables::Table& table, const Program* before)
        : m_memory(memory), m_table(table)
    {
        if (before != nullptr) {
            for (const Map& map : before->maps)
                m_mapsBefore.emplace(map.name, &map);
        }
    }

    Program run(const Limits& limits)
    {
        m_limits = &limits;
        m_program = {};
        m_reached.clear();
        m_logging.clear();
        m_ends.clear();
        std::vector<const ebtables::Chain*> hooked;
        for (const auto& [name, hook] : {std::pair("INPUT", Hook::Input), std::pair("FORWARD", Hook::Forward)}) {
            const ebtables::Chain* chain = m_table.find(name);
            m_program.chains.push_back({name, hook, chain != nullptr && chain->policy == "DROP", {}});
            hooked.push_back(chain);
        }
        for (std::size_t i = 0; i < hooked.size(); ++i) {
            if (hooked[i] != nullptr)
                m_program.chains[i].steps = stepsOf(*hooked[i]);
        }
        while (!m_waiting.empty()) {
            const ebtables::Chain& chain = *m_waiting.back();
            m_waiting.pop_back();
            List<Step> steps = stepsOf(chain);
            m_program.chains.push_back({chain.name, Hook::None, false, std::move(steps)});
        }
        return std::move(m_program);
    }

    // Whether all is known about the rules that frames can come to.
    bool knowsAllInFull() const { return m_knowsAllInFull; }
    // Of the program's chains, those that are known to lead to no other.
    const std::vector<std::string>& ends() const { return m_ends; }

private:
    const Divided& divided(const ebtables::Chain& chain)
    {
        const auto [place, isNew] = m_divided.try_emplace(chain.name);
        if (isNew) {
            Keeper::Memory::ChainOfTable& known = m_memory.chains[chain.name];
            const FlatRules rules = flatten(m_table, chain, known.rules.tags());
            m_knowsAllInFull = m_knowsAllInFull && rules.isKnownInFull;
            if (known.rules.update(rules, m_memory.lastSerial))
                known.dispatched = dispatched(known.rules);
            place->second = divide(known.rules, known.dispatched);
        }
        return place->second;
    }

    List<Step> stepsOf(const ebtables::Chain& chain)
    {
        const Divided& rules = divided(chain);
        m_rulesPerForm = rules.classes.size() <= fewClasses ? rulesPerForm : rulesPerFormOfMany;
        std::vector<Step> steps;
        addDispatch(chain.name, rules, true, steps);
        addDispatch(chain.name, rules, false, steps);
        List<Step> rest = addSection({chain.name, {}}, rules.rest);
        if (steps.empty())
            return rest;
        steps.insert(steps.end(), rest.begin(), rest.end());
        return steps;
    }

    // The step that leads to the classes with both ports, or to those with one.
    void addDispatch(const std::string& name, const Divided& rules, bool both, std::vector<Step>& steps)
    {
        Map map;
        map.name = name + (both ? "/ports" : "/port");
        map.sizes.assign(both ? 2 : 1, inPort.size);
        std::vector<Element> elements;
        for (const Divided::Class& here : rules.classes) {
            if (here.out.empty() == both)
                continue;
            const std::string chain = name + "/" + here.in + (both ? "/" + here.out : "");
            Element element;
            appendName(element.first, here.in);
            if (both)
                appendName(element.first, here.out);
            element.verdict = {Verdict::Kind::Goto, chain};
            elements.push_back(std::move(element));
            List<Step> inside = addSection({chain, here.decided}, here.rules);
            m_program.chains.push_back({chain, Hook::None, false, std::move(inside)});
        }
        if (elements.empty())
            return;
        List<Element>& kept = m_memory.ports[map.name];
        if (!std::ranges::equal(kept, elements))
            kept = std::move(elements);
        map.elements = kept;
        LookUp lookUp{m_program.maps.size(), {whole(inPort)}};
        if (both)
            lookUp.key.push_back(whole(outPort));
        steps.push_back({{}, std::move(lookUp)});
        m_program.maps.push_back(std::move(map));
    }

    // Adds all of it but its steps, which it gives.
    List<Step> addSection(const PlaceOfSection& of, const RuleList& rules)
    {
        const std::string limits =
            std::to_string(m_limits - std::begin(allLimits)) + " " + std::to_string(m_rulesPerForm) + " ";
        SectionMemory& memory = m_memory.sections[limits + of.chain];
        const auto mapBefore = [this](const std::string& name) {
            const auto found = m_mapsBefore.find(name);
            return found == m_mapsBefore.end() ? nullptr : found->second;
        };
        makeSection({m_table, mapBefore, m_memory.logs, m_limits->inPages}, memory, of, rules, m_program.maps.size(),
                    {m_limits->longestRace, m_rulesPerForm}, m_memory.forms);
        const Section& section = memory.section;
        m_program.maps.insert(m_program.maps.end(), section.maps.begin(), section.maps.end());
        m_program.chains.insert(m_program.chains.end(), section.chains.begin(), section.chains.end());
        m_ends.insert(m_ends.end(), section.ends.begin(), section.ends.end());
        for (const std::string& name : section.logs) {
            const Chain& chain = m_memory.logs[name];
            if (m_logging.insert(name).second)
                m_program.chains.push_back(chain);
        }
        for (const std::string& target : section.targets) {
            if (m_reached.insert(target).second)
                m_waiting.push_back(m_table.find(target));
        }
        return section.steps;
    }

    Keeper::Memory& m_memory;
    const ebtables::Table& m_table;
    std::unordered_map<std::string_view, const Map*> m_mapsBefore;
    std::unordered_map<std::string, Divided> m_divided; // by chain
    const Limits* m_limits = nullptr;
    std::size_t m_rulesPerForm = 0;
    bool m_knowsAllInFull = true;
    std::vector<std::string> m_ends;
    Program m_program;
    std::vector<const ebtables::Chain*> m_waiting; // reached, not yet compiled
    std::set<std::string> m_reached;
    std::set<std::string> m_logging; // chains
};

} // namespace

Keeper::Keeper() = default;
Keeper::~Keeper() = default;
Keeper::Keeper(Keeper&&) noexcept = default;
Keeper& Keeper::operator=(Keeper&&) noexcept = default;

std::optional<Program> Keeper::compile(const ebtables::Table& table, const Program* before)
try {
    if (!m_memory)
        m_memory = std::make_unique<Memory>();
    Compiler compiler(*m_memory, table, before);
    std::optional<Program> program;
    for (const Limits& limits : allLimits) {
        program = compiler.run(limits);
        if (!compiler.knowsAllInFull()) {
            program.reset();
            break;
        }
        if (depthOf(*program, compiler.ends()) <= deepest)
            break;
    }
    m_memory->chains.dropUnused();
    m_memory->sections.dropUnused();
    m_memory->ports.dropUnused();
    m_memory->logs.dropUnused();
    m_memory->forms.dropUnused();
    return program;
} catch (...) {
    forget();
    throw;
}

void Keeper::forget()
{
    m_memory.reset();
}

} // namespace compiled
