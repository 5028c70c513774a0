#include "compiled/run.hpp"

#include "compiled/lookup.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace compiled
{

namespace
{

class RunMaker
{
public:
    RunMaker(const std::string& name, KnownRules run, Making& making)
        : m_name(name), m_run(run), m_making(making), m_key(*run.front()->key)
    {
        m_intervals = std::ranges::any_of(run, [&](const Known* rule) { return rule->form != run.front()->form; });
        // The kernel has no map of concatenated intervals of one part only.
        m_withType = m_intervals && m_key.parts.size() == 1;
    }

    std::vector<Step> make()
    {
        const std::size_t map = m_making.addMap(keptMap());
        m_steps.push_back(lookUp(map, usualLength));
        if (dependsOnHeaderLength(m_key))
            addOtherLengths(map);
        if (dependsOnExtensions(m_key))
            addExtensions();
        return std::move(m_steps);
    }

private:
    Step lookUp(std::size_t map, std::uint8_t words) const
    {
        Step step{conditionsOf(m_key, words), LookUp{map, fieldsOf(m_key, words)}};
        auto& key = std::get<LookUp>(step.action).key;
        if (m_intervals) {
            for (MaskedField& part : key)
                part = whole(part.field);
        }
        if (m_withType) {
            key.insert(key.begin(), step.conditions.front().of);
            step.conditions.erase(step.conditions.begin());
        }
        return step;
    }

    Map keptMap()
    {
        SectionMemory::Elements& kept = m_making.memory().elements[m_name];
        if (!hasSerials(m_run, kept.rules)) {
            kept.rules = serialsOf(m_run);
            kept.map = makeMap();
            kept.logs = chainsOf(kept.map);
        }
        m_making.addLogs(kept.logs);
        return kept.map;
    }

    Map makeMap()
    {
        Map map;
        map.name = m_name;
        map.intervals = m_intervals;
        map.counts = true;
        if (m_withType)
            map.sizes.push_back(fieldOf(Part::Type).size);
        for (const Part part : m_key.parts)
            map.sizes.push_back(fieldOf(part).size);
        std::vector<Element> elements;
        elements.reserve(m_run.size());
        for (const Known* rule : m_run)
            elements.push_back(elementOf(*rule));
        map.elements = std::move(elements);
        return map;
    }

    Element elementOf(const Known& rule)
    {
        Element element;
        if (m_withType)
            element.first = hasType(m_key.family).value;
        element.first.insert(element.first.end(), rule.key->value.begin(), rule.key->value.end());
        if (m_intervals) {
            element.last = element.first;
            const std::size_t skipped = element.last.size() - rule.key->mask.size();
            for (std::size_t i = 0; i < rule.key->mask.size(); ++i)
                element.last[skipped + i] |= static_cast<std::uint8_t>(~rule.key->mask[i]);
        }
        element.origin = rule.item.origin;
        element.verdict = m_making.verdictOf(rule.item.rule);
        return element;
    }

    // The other fifteen lengths that a header can say it has.
    void addOtherLengths(std::size_t map)
    {
        Chain chain;
        chain.name = m_name + "/lengths";
        for (std::uint8_t words = 0; words < 16; ++words) {
            if (words != usualLength)
                chain.steps.push_back(lookUp(map, words));
        }
        m_steps.push_back({hasOtherLength(), Jump{chain.name}});
        m_making.addChain(std::move(chain));
    }

    void addExtensions()
    {
        Chain chain;
        chain.name = m_name + "/extensions";
        std::vector<Step> steps;
        m_making.addWritten(chain.name, m_run, steps);
        chain.steps = std::move(steps);
        m_steps.push_back({hasExtensions(), Jump{chain.name}});
        m_making.addChain(std::move(chain));
    }

    const std::string& m_name;
    KnownRules m_run;
    Making& m_making;
    const RuleKey& m_key; // the first one's; the others have the same parts
    bool m_intervals = false;
    bool m_withType = false;
    std::vector<Step> m_steps;
};

} // namespace

std::vector<Step> runOf(const std::string& name, KnownRules run, Making& making)
{
    return RunMaker(name, run, making).make();
}

} // namespace compiled
