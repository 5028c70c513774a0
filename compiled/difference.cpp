#include "compiled/difference.hpp"

#include <algorithm>
#include <limits>
#include <numeric>
#include <string_view>
#include <unordered_map>

namespace compiled
{

namespace
{

constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

std::string_view textOf(const Bytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool isSameMap(const Map& from, const Map& to)
{
    return from.sizes == to.sizes && from.intervals == to.intervals && from.counts == to.counts &&
           from.places == to.places && from.numbers == to.numbers;
}

class Comparison
{
public:
    Comparison(const Program& from, const Program& to)
        : m_from(from), m_to(to), m_partners(places(from.chains, to.chains)), m_mapPartners(places(from.maps, to.maps))
    {
    }

    Difference find()
    {
        compareMaps();
        std::vector<bool> stays(m_from.chains.size());
        for (std::size_t i = 0; i < m_to.chains.size(); ++i) {
            const std::size_t partner = m_partners[i];
            if (partner == none || m_from.chains[partner].hook != m_to.chains[i].hook) {
                m_result.newChains.push_back(i);
                continue;
            }
            stays[partner] = true;
            if (!isSame(m_from.chains[partner], m_to.chains[i]))
                m_result.refilled.emplace_back(partner, i);
        }
        addOthers(stays, m_result.goneChains);
        return std::move(m_result);
    }

private:
    // For each of `to` the one of `from` with its name. Most of the time all are where they were.
    template <typename Named>
    static std::vector<std::size_t> places(const std::vector<Named>& from, const std::vector<Named>& to)
    {
        if (std::ranges::equal(from, to, {}, &Named::name, &Named::name)) {
            std::vector<std::size_t> all(to.size());
            std::iota(all.begin(), all.end(), std::size_t{0});
            return all;
        }
        std::unordered_map<std::string_view, std::size_t> byName;
        for (std::size_t i = 0; i < from.size(); ++i)
            byName.emplace(from[i].name, i);
        std::vector<std::size_t> result;
        result.reserve(to.size());
        for (const Named& wanted : to) {
            const auto found = byName.find(wanted.name);
            result.push_back(found == byName.end() ? none : found->second);
        }
        return result;
    }

    static void addOthers(const std::vector<bool>& stays, std::vector<std::size_t>& gone)
    {
        for (std::size_t i = 0; i < stays.size(); ++i) {
            if (!stays[i])
                gone.push_back(i);
        }
    }

    void compareMaps()
    {
        std::vector<bool> stays(m_from.maps.size());
        for (std::size_t i = 0; i < m_to.maps.size(); ++i) {
            std::size_t& partner = m_mapPartners[i];
            if (partner != none && !isSameMap(m_from.maps[partner], m_to.maps[i]))
                partner = none;
            if (partner == none) {
                m_result.newMaps.push_back(i);
                m_mapsStay = false;
                continue;
            }
            stays[partner] = true;
            m_mapsStay = m_mapsStay && partner == i;
            compareElements(partner, i);
        }
        addOthers(stays, m_result.goneMaps);
    }

    void compareElements(std::size_t fromMap, std::size_t toMap)
    {
        const List<Element>& from = m_from.maps[fromMap].elements;
        const List<Element>& to = m_to.maps[toMap].elements;
        if (from.isSharedWith(to))
            return;
        Difference::Elements changes{fromMap, toMap, {}, {}};
        // Most of the time all but one are where they were.
        const std::size_t shorter = std::min(from.size(), to.size());
        std::size_t begin = 0;
        while (begin < shorter && from[begin] == to[begin])
            ++begin;
        std::size_t end = 0;
        while (end < shorter - begin && from[from.size() - 1 - end] == to[to.size() - 1 - end])
            ++end;

        std::unordered_map<std::string_view, std::size_t> byKey;
        for (std::size_t i = begin; i + end < from.size(); ++i)
            byKey.emplace(textOf(from[i].first), i);
        std::vector<bool> stays(from.size());
        for (std::size_t i = begin; i + end < to.size(); ++i) {
            const auto found = byKey.find(textOf(to[i].first));
            if (found != byKey.end() && from[found->second] == to[i])
                stays[found->second] = true;
            else
                changes.added.push_back(i);
        }
        for (std::size_t i = begin; i + end < from.size(); ++i) {
            if (!stays[i])
                changes.gone.push_back(i);
        }
        if (!changes.gone.empty() || !changes.added.empty())
            m_result.elements.push_back(std::move(changes));
    }

    bool isSame(const Chain& from, const Chain& to) const
    {
        if (m_mapsStay && from.steps.isSharedWith(to.steps))
            return from.dropsByPolicy == to.dropsByPolicy;
        return from.dropsByPolicy == to.dropsByPolicy &&
               std::ranges::equal(from.steps, to.steps, [this](const Step& a, const Step& b) { return isSame(a, b); });
    }

    bool isSame(const Step& from, const Step& to) const
    {
        if (from.conditions != to.conditions || from.action.index() != to.action.index())
            return false;
        if (const auto* lookUp = std::get_if<LookUp>(&from.action))
            return isSame(*lookUp, std::get<LookUp>(to.action));
        if (const auto* lead = std::get_if<Lead>(&from.action)) {
            const auto& other = std::get<Lead>(to.action);
            return lead->chain == other.chain && isSame(lead->place, other.place) &&
                   lead->than.has_value() == other.than.has_value() &&
                   (!lead->than || isSame(*lead->than, *other.than));
        }
        return from.action == to.action;
    }

    // The numbers of maps are each program's own.
    bool isSame(const LookUp& from, const LookUp& to) const
    {
        return from.key == to.key && m_mapPartners[to.map] == from.map;
    }

    const Program& m_from;
    const Program& m_to;
    std::vector<std::size_t> m_partners;
    std::vector<std::size_t> m_mapPartners; // only those that stay
    bool m_mapsStay = true;                 // all of them, with their numbers
    Difference m_result;
};

} // namespace

Difference difference(const Program& from, const Program& to)
{
    return Comparison(from, to).find();
}

} // namespace compiled
