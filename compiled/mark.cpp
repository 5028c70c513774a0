#include "compiled/mark.hpp"

#include "compiled/hash.hpp"

#include <algorithm>
#include <set>

namespace compiled
{

namespace
{

ebtables::Origin valid(std::uint64_t hash)
{
    return hash == ebtables::noOrigin ? 1 : hash;
}

} // namespace

Marker::Marker(std::string_view chain) : m_chain(hashOf(chain)) {}

ebtables::Origin Marker::rule(std::string_view rule)
{
    ebtables::Origin mark = first(rule);
    while (!give(mark))
        mark = next(mark);
    return mark;
}

ebtables::Origin Marker::first(std::string_view rule) const
{
    return valid(hashOf(rule, hashOf(" ", m_chain)));
}

ebtables::Origin Marker::next(ebtables::Origin mark)
{
    return valid(hashOf("again", mark));
}

// False when it was given before.
bool Marker::give(ebtables::Origin mark)
{
    if (m_given.size() <= 2 * m_count) {
        std::vector<ebtables::Origin> old(std::max(std::size_t{64}, 4 * m_count), ebtables::noOrigin);
        old.swap(m_given);
        m_count = 0;
        for (const ebtables::Origin each : old) {
            if (each != ebtables::noOrigin)
                give(each);
        }
    }
    auto place = static_cast<std::size_t>(mark % m_given.size());
    while (m_given[place] != ebtables::noOrigin && m_given[place] != mark)
        place = (place + 1) % m_given.size();
    if (m_given[place] == mark)
        return false;
    m_given[place] = mark;
    ++m_count;
    return true;
}

ebtables::Origin Marker::policy(std::string_view policy) const
{
    return valid(hashOf(policy, hashOf(" policy ", m_chain)));
}

bool markAlone(const Marker& marker, Marks before, TableRules removed, Marks after,
               std::span<ebtables::TableRule> added)
{
    constexpr std::size_t few = 8;
    if (removed.size() + added.size() > few)
        return false;
    std::vector<ebtables::Origin> marks; // of these, and of others that say the same
    for (const TableRules rules : {removed, TableRules(added)}) {
        std::set<ebtables::Origin> seen;
        for (const ebtables::TableRule& rule : rules) {
            const ebtables::Origin mark = marker.first(rule.text);
            if (!seen.insert(mark).second)
                return false;
            marks.insert(marks.end(), {mark, Marker::next(mark)});
        }
    }
    const auto mayBeTheSame = [&](ebtables::Origin other) { return std::ranges::find(marks, other) != marks.end(); };
    if (std::ranges::any_of(before, mayBeTheSame) || std::ranges::any_of(after, mayBeTheSame))
        return false;
    for (ebtables::TableRule& rule : added)
        rule.origin = marker.first(rule.text);
    return true;
}

void mark(ebtables::Table& table)
{
    for (ebtables::Chain& chain : table.chains) {
        Marker marker(chain.name);
        std::string text;
        for (ebtables::TableRule& rule : chain.rules) {
            text.clear();
            if (rule.rule)
                ebtables::appendText(text, *rule.rule);
            rule.origin = marker.rule(rule.rule ? text : rule.text);
        }
        chain.policyOrigin = marker.policy(chain.policy);
    }
}

} // namespace compiled
