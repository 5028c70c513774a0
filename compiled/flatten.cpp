#include "compiled/flatten.hpp"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace compiled
{

namespace
{

using ebtables::Rule;
using ebtables::Table;

bool takesEveryFrame(const Rule& rule)
{
    Rule bare;
    bare.target = rule.target;
    return rule == bare;
}

class Flattener
{
public:
    Flattener(const Table& table, std::span<const RuleTag> before) : m_table(table), m_before(before) {}

    // False, and nothing is added, for one that cannot stand in the place of a jump: a RETURN would leave the chain
    // that it comes to stand in.
    bool add(const ebtables::Chain& chain)
    {
        const std::size_t begin = m_result.rules.size();
        const bool isInside = !m_inside.empty();
        m_inside.push_back(chain.name);
        m_result.rules.reserve(begin + chain.rules.size() + 1);
        for (const ebtables::TableRule& rule : chain.rules) {
            if (wasThere(rule.number)) {
                m_result.rules.push_back({&*rule.rule, {rule.origin, rule.number}});
            } else if (!rule.rule) {
                m_result.isKnownInFull = false;
            } else if (isInside && rule.rule->target == "RETURN") {
                m_result.rules.resize(begin);
                m_inside.pop_back();
                return false;
            } else {
                addAnew(rule);
            }
        }
        m_inside.pop_back();
        if (!ebtables::isBuiltIn(chain.name) && chain.policy != "RETURN") {
            Rule policy;
            policy.target = chain.policy;
            addMade(std::move(policy), chain.policyOrigin);
        }
        return true;
    }

    FlatRules take() { return std::move(m_result); }

private:
    // Looks a few places ahead: rules may have gone. A rule keeps its number only in its own chain, so what stood in
    // the place of a jump still may.
    bool wasThere(std::uint64_t number)
    {
        constexpr std::size_t few = 8;
        const std::span<const RuleTag> next = m_before.subspan(m_at, std::min(few, m_before.size() - m_at));
        const auto found = number == 0 ? next.end() : std::ranges::find(next, number, &RuleTag::number);
        if (found == next.end())
            return false;
        m_at += static_cast<std::size_t>(found - next.begin()) + 1;
        return true;
    }

    // Beside the id of a network the kernel forgets the priority: kept as it is, the rule would come back as another
    // one.
    void addAnew(const ebtables::TableRule& from)
    {
        const Rule& rule = *from.rule;
        const bool isJump = !ebtables::isStandardTarget(rule.target);
        const ebtables::Chain* next = isJump && takesEveryFrame(rule) ? m_table.find(rule.target) : nullptr;
        if (next != nullptr && mayStandInPlace(*next) && add(*next))
            return;
        if (!rule.vlan.priority || !rule.vlan.id || rule.vlan.id->first == 0) {
            m_result.rules.push_back({&rule, {from.origin, isJump ? 0 : from.number}});
            return;
        }
        Rule without = rule;
        without.vlan.priority.reset();
        addMade(std::move(without), from.origin);
    }

    void addMade(Rule rule, ebtables::Origin origin)
    {
        m_result.made.push_back(std::move(rule));
        m_result.rules.push_back({&m_result.made.back(), {origin, 0}});
    }

    bool mayStandInPlace(const ebtables::Chain& chain) const
    {
        return !ebtables::isBuiltIn(chain.name) && std::ranges::find(m_inside, chain.name) == m_inside.end();
    }

    const Table& m_table;
    std::span<const RuleTag> m_before;
    std::size_t m_at = 0;                   // in these: what was not met yet
    std::vector<std::string_view> m_inside; // the chains that are being added
    FlatRules m_result;
};

} // namespace

FlatRules flatten(const Table& table, const ebtables::Chain& chain, std::span<const RuleTag> before)
{
    Flattener flattener(table, before);
    flattener.add(chain);
    return flattener.take();
}

} // namespace compiled
