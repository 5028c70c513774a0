#include "compiled/flatten.hpp"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

namespace compiled
{

namespace
{

using ebtables::Chain;
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
    explicit Flattener(const Table& table) : m_table(table) {}

    void add(const Chain& chain)
    {
        m_inside.push_back(chain.name);
        m_result.rules.reserve(m_result.rules.size() + chain.rules.size() + 1);
        for (const ebtables::TableRule& rule : chain.rules) {
            const std::string& target = rule.rule->target;
            const Chain* next = ebtables::isStandardTarget(target) ? nullptr : m_table.find(target);
            if (next != nullptr && takesEveryFrame(*rule.rule) && canStandInPlace(*next))
                add(*next);
            else
                addRule(*rule.rule, rule.origin);
        }
        m_inside.pop_back();
        if (ebtables::isBuiltIn(chain.name) || chain.policy == "RETURN")
            return;
        Rule policy;
        policy.target = chain.policy;
        addMade(std::move(policy), chain.policyOrigin);
    }

    FlatRules take() { return std::move(m_result); }

private:
    // Beside the id of a network the kernel forgets the priority: kept as it is, the rule would come back as another
    // one.
    void addRule(const Rule& rule, ebtables::Origin origin)
    {
        if (!rule.vlan.priority || !rule.vlan.id || rule.vlan.id->first == 0) {
            m_result.rules.push_back({&rule, origin});
            return;
        }
        Rule without = rule;
        without.vlan.priority.reset();
        addMade(std::move(without), origin);
    }

    void addMade(Rule rule, ebtables::Origin origin)
    {
        m_result.made.push_back(std::move(rule));
        m_result.rules.push_back({&m_result.made.back(), origin});
    }

    // A RETURN would leave the chain that it comes to stand in.
    bool canStandInPlace(const Chain& chain) const
    {
        const auto returns = [](const ebtables::TableRule& rule) { return rule.rule->target == "RETURN"; };
        return !ebtables::isBuiltIn(chain.name) && std::ranges::none_of(chain.rules, returns) &&
               std::ranges::find(m_inside, chain.name) == m_inside.end();
    }

    const Table& m_table;
    std::vector<std::string_view> m_inside; // the chains that are being added
    FlatRules m_result;
};

} // namespace

FlatRules flatten(const Table& table, const Chain& chain)
{
    Flattener flattener(table);
    flattener.add(chain);
    return flattener.take();
}

} // namespace compiled
