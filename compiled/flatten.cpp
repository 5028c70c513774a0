#include "compiled/flatten.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

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
        m_items.reserve(m_items.size() + chain.rules.size() + 1);
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
        m_items.push_back({policy, chain.policyOrigin});
    }

    std::vector<Item> take() { return std::move(m_items); }

private:
    // Beside the id of a network the kernel forgets the priority: kept as it is, the rule would come back as another
    // one.
    void addRule(const Rule& rule, ebtables::Origin origin)
    {
        Item& item = m_items.emplace_back(Item{rule, origin});
        if (rule.vlan.id && rule.vlan.id->first != 0)
            item.rule.vlan.priority.reset();
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
    std::vector<Item> m_items;
};

} // namespace

std::vector<Item> flatten(const Table& table, const Chain& chain)
{
    Flattener flattener(table);
    flattener.add(chain);
    return flattener.take();
}

} // namespace compiled
