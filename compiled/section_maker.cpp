#include "compiled/section_maker.hpp"

#include "compiled/order.hpp"
#include "compiled/race.hpp"
#include "compiled/run.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace compiled
{

namespace
{

// A map costs about as much as one or two rules.
constexpr std::size_t smallestRun = 4;

// ---- when rules are worth a race

constexpr std::size_t mostKeyWords = 14; // the kernel has registers for two more, the place found before

bool canRace(const Form& form)
{
    std::size_t words = 0;
    for (const Part part : form.like.parts)
        words += (fieldOf(part).size + 3U) / 4U;
    return words > 0 && words <= mostKeyWords;
}

class SectionMaker
{
public:
    SectionMaker(const Surroundings& surroundings, SectionMemory& memory, const PlaceOfSection& of,
                 const FormedRules& rules, RaceLimits limits, std::size_t formNumbers)
        : m_making(surroundings, memory, of.decided),
          m_steps(memory.section.steps.edit()),
          m_of(of),
          m_rules(rules),
          m_limits(limits),
          m_formSeen(formNumbers),
          m_canRace(formNumbers)
    {
        for (const Form* form : rules.forms) {
            if (form != nullptr && !m_formSeen[form->number]) {
                m_formSeen[form->number] = true;
                m_canRace[form->number] = compiled::canRace(*form);
            }
        }
    }

    void make()
    {
        const FormedRules& rules = m_rules;
        if (!isWorthARace(rules.forms)) {
            addRuns(m_of.chain, rules.rules);
            return;
        }
        // Those without a key stay between those before and those behind them.
        std::size_t first = 0;
        std::size_t stretch = 0;
        for (std::size_t i = 0; i <= rules.size(); ++i) {
            if (i < rules.size() && canRace(rules.forms[i]))
                continue;
            const std::string number = ++stretch == 1 ? "" : "-" + std::to_string(stretch);
            const FormedRules theirs = rules.subspan(first, i - first);
            if (theirs.size() == rules.size() || isWorthARace(theirs.forms))
                addRace(m_of.chain + "/race" + number, first, theirs);
            else
                addRuns(m_of.chain + number, theirs.rules);
            if (i < rules.size())
                m_making.addWritten(m_of.chain, rules.rules.subspan(i, 1), m_steps);
            first = i + 1;
        }
    }

private:
    bool canRace(const Form* form) const { return form != nullptr && m_canRace[form->number]; }

    bool isWorthARace(std::span<const Form* const> among)
    {
        m_formSeen.assign(m_formSeen.size(), false);
        std::map<Family, std::size_t> ofFamily;
        std::size_t forms = 0;
        std::size_t rules = 0;
        for (const Form* form : among) {
            if (!canRace(form))
                continue;
            ++rules;
            if (m_formSeen[form->number])
                continue;
            m_formSeen[form->number] = true;
            ++forms;
            if (++ofFamily[form->like.family] > m_limits.longest)
                return false;
        }
        std::size_t others = 0;
        for (const auto& [family, count] : ofFamily)
            others = std::max(others, family == Family::Any ? 0 : count);
        return ofFamily[Family::Any] + others <= m_limits.longest && forms > 1 &&
               rules >= m_limits.rulesPerForm * forms && rules <= mostInRace;
    }

    void addRuns(const std::string& prefix, KnownRules rules)
    {
        std::vector<Known*> written; // that stand one behind the other
        std::size_t lists = 0;
        const auto write = [&] {
            if (written.empty())
                return;
            const std::string number = ++lists == 1 ? "" : "-" + std::to_string(lists);
            m_making.addWritten(prefix + "/written" + number, written, m_steps);
            written.clear();
        };
        for (const Group& group : order(rules)) {
            std::vector<Known*> run;
            run.reserve(group.items.size());
            for (const std::size_t index : group.items)
                run.push_back(rules[index]);
            if (group.name.empty() || run.size() < smallestRun) {
                written.insert(written.end(), run.begin(), run.end());
                continue;
            }
            write();
            std::ranges::move(runOf(prefix + "/" + group.name, run, m_making), std::back_inserter(m_steps));
        }
        write();
    }

    void addRace(const std::string& name, std::size_t first, const FormedRules& rules)
    {
        const auto asWritten = [&](Family family) { return addAsWritten(first, family); };
        std::ranges::move(raceOf(name, rules, m_making, asWritten), std::back_inserter(m_steps));
    }

    // Who has left for the first such chain does not come to the place of a second one.
    std::string addAsWritten(std::size_t first, Family family)
    {
        Chain chain;
        chain.name = m_of.chain + (family == Family::Ip4 ? "/ip4" : "/ip6") + "-as-written";
        if (!m_asWritten.insert(family).second)
            return chain.name;
        std::vector<Known*> theirs;
        for (std::size_t i = first; i < m_rules.size(); ++i) {
            const Form* const form = m_rules.forms[i];
            if (form == nullptr || canMeet(form->like.family, family))
                theirs.push_back(m_rules.rules[i]);
        }
        std::vector<Step> steps;
        m_making.addWritten(chain.name, theirs, steps);
        chain.steps = std::move(steps);
        std::string name = chain.name;
        m_making.addChain(std::move(chain));
        return name;
    }

    Making m_making;
    std::vector<Step>& m_steps;
    const PlaceOfSection& m_of;
    const FormedRules& m_rules;
    RaceLimits m_limits;
    std::vector<bool> m_formSeen; // by number
    std::vector<bool> m_canRace;  // likewise
    std::set<Family> m_asWritten; // those for which there is a chain with the rules as they are
};

// The numbers of all maps have changed, and nothing else.
void renumber(Section& section, std::size_t firstMap)
{
    const auto move = [&](Step& step) {
        forEachLookUp(step, [&](LookUp& lookUp) { lookUp.map = lookUp.map - section.firstMap + firstMap; });
    };
    const auto moveAll = [&](List<Step>& steps) {
        const auto looksUp = [](const Step& step) {
            return std::holds_alternative<LookUp>(step.action) || std::holds_alternative<Lead>(step.action);
        };
        if (std::ranges::any_of(steps, looksUp))
            std::ranges::for_each(steps.edit(), move);
    };
    moveAll(section.steps);
    for (Chain& chain : section.chains)
        moveAll(chain.steps);
    section.firstMap = firstMap;
}

} // namespace

void makeSection(const Surroundings& surroundings, SectionMemory& memory, const PlaceOfSection& of,
                 const RuleList& rules, std::size_t firstMap, RaceLimits limits, Forms& forms)
{
    if (!rules.rules.empty() && rules.serials == memory.rules) {
        if (memory.section.firstMap != firstMap)
            renumber(memory.section, firstMap);
        return;
    }
    memory.section = {};
    memory.section.firstMap = firstMap;
    memory.rules = rules.serials;
    std::vector<const Form*> formsOf;
    formsOf.reserve(rules.rules.size());
    for (Known* rule : rules.rules) {
        rule->findKey(of.decided, forms);
        formsOf.push_back(rule->form.get());
    }
    SectionMaker(surroundings, memory, of, {rules.rules, rules.serials, formsOf}, limits, forms.numbers()).make();
    memory.elements.dropUnused();
    memory.runners.dropUnused();
    memory.races.dropUnused();
    memory.pages.dropUnused();
}

} // namespace compiled
