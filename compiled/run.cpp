#include "compiled/run.hpp"

#include "compiled/lookup.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace compiled
{

namespace
{

MaskedField whole(const Field& field)
{
    return {field, Bytes(field.size, 0xff)};
}

class RunMaker
{
public:
    RunMaker(const std::string& name, const std::vector<KeyedItem>& run, const Surroundings& surroundings)
        : m_name(name), m_run(run), m_with(surroundings), m_key(*run.front().key)
    {
        m_intervals = std::ranges::any_of(run, [&](const KeyedItem& item) { return item.key->mask != m_key.mask; });
        // The kernel has no map of concatenated intervals of one part only.
        m_withType = m_intervals && m_key.parts.size() == 1;
    }

    std::vector<Step> make()
    {
        const std::size_t map = m_with.program.maps.size();
        m_with.program.maps.push_back(elements());
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

    Map elements() const
    {
        Map map;
        map.name = m_name;
        map.intervals = m_intervals;
        map.counts = true;
        if (m_withType)
            map.sizes.push_back(fieldOf(Part::Type).size);
        for (const Part part : m_key.parts)
            map.sizes.push_back(fieldOf(part).size);
        map.elements.reserve(m_run.size());
        for (const KeyedItem& item : m_run)
            map.elements.push_back(elementOf(item));
        return map;
    }

    Element elementOf(const KeyedItem& item) const
    {
        Element element;
        if (m_withType)
            element.first = hasType(m_key.family).value;
        element.first.insert(element.first.end(), item.key->value.begin(), item.key->value.end());
        element.last = element.first;
        if (m_intervals) {
            const std::size_t skipped = element.last.size() - item.key->mask.size();
            for (std::size_t i = 0; i < item.key->mask.size(); ++i)
                element.last[skipped + i] |= static_cast<std::uint8_t>(~item.key->mask[i]);
        }
        element.origin = item.item->origin;
        element.verdict = verdictOf(item.item->rule, m_with.loggingChain);
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
        m_with.program.chains.push_back(std::move(chain));
    }

    void addExtensions()
    {
        Chain chain;
        chain.name = m_name + "/extensions";
        for (const KeyedItem& item : m_run)
            chain.steps.push_back({{}, PlainRule{item.item->rule, item.item->origin}});
        m_steps.push_back({hasExtensions(), Jump{chain.name}});
        m_with.program.chains.push_back(std::move(chain));
    }

    const std::string& m_name;
    const std::vector<KeyedItem>& m_run;
    const Surroundings& m_with;
    const RuleKey& m_key; // the first one's; the others have the same parts
    bool m_intervals = false;
    bool m_withType = false;
    std::vector<Step> m_steps;
};

} // namespace

std::vector<Step> runOf(const std::string& name, const std::vector<KeyedItem>& run, const Surroundings& surroundings)
{
    return RunMaker(name, run, surroundings).make();
}

} // namespace compiled
