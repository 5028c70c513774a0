#include "ebtables/model.hpp"

#include <algorithm>
#include <utility>

namespace ebtables
{

namespace
{

constexpr const char* missing = "No chain/target/match by that name.";

std::string targetOf(const TableRule& rule)
{
    if (rule.rule)
        return rule.rule->target;
    const std::size_t jump = rule.text.rfind("-j ");
    return jump == std::string::npos ? "" : rule.text.substr(jump + 3, rule.text.find(' ', jump + 3) - jump - 3);
}

} // namespace

TableModel::TableModel(Table table) : m_table(std::move(table))
{
    for (const Chain& chain : m_table.chains) {
        m_places.emplace(chain.name, m_places.size());
        for (const TableRule& rule : chain.rules)
            countJump(rule, 1);
    }
}

std::optional<std::string> TableModel::apply(const Command& command, Origin origin)
{
    const auto found = m_places.find(command.chain);
    if (command.kind == CommandKind::NewChain) {
        if (found != m_places.end())
            return "Chain already exists.";
        m_places.emplace(command.chain, m_table.chains.size());
        m_table.chains.push_back({command.chain, "ACCEPT", {}, origin});
        return std::nullopt;
    }
    if (found == m_places.end())
        return missing;
    Chain& chain = m_table.chains[found->second];
    switch (command.kind) {
    case CommandKind::Append:
    case CommandKind::Insert:
        return add(chain, command, origin);
    case CommandKind::Delete:
        return remove(chain, command.rule);
    case CommandKind::Flush:
        clear(chain);
        return std::nullopt;
    case CommandKind::Policy:
        chain.policy = command.policy;
        chain.policyOrigin = origin;
        return std::nullopt;
    case CommandKind::DeleteChain:
        if (jumpsFromElsewhere(chain) > 0)
            return "CHAIN_DEL failed (Device or resource busy): a rule jumps to the chain";
        removeChain(found->second);
        return std::nullopt;
    case CommandKind::NewChain:
        break;
    }
    return std::nullopt;
}

std::optional<std::string> TableModel::add(Chain& chain, const Command& command, Origin origin)
{
    const std::string& target = command.rule.target;
    if (!isStandardTarget(target) && !m_places.contains(target))
        return "Chain '" + target + "' does not exist";
    std::size_t at = chain.rules.size();
    if (command.kind == CommandKind::Insert) {
        if (command.position > chain.rules.size() + 1)
            return "Index of insertion too big.";
        at = command.position - 1;
    }
    const auto added = chain.rules.insert(chain.rules.begin() + static_cast<std::ptrdiff_t>(at),
                                          {.text = {}, .rule = command.rule, .counters = {}, .origin = origin});
    countJump(*added, 1);
    return std::nullopt;
}

std::optional<std::string> TableModel::remove(Chain& chain, const Rule& rule)
{
    const auto found = std::ranges::find_if(chain.rules, [&](const TableRule& held) { return held.rule == rule; });
    if (found != chain.rules.end()) {
        countJump(*found, -1);
        chain.rules.erase(found);
        return std::nullopt;
    }
    if (std::ranges::any_of(chain.rules, [](const TableRule& held) { return !held.rule; }))
        return std::nullopt;
    return "Bad rule (does a matching rule exist in that chain?).";
}

void TableModel::removeChain(std::size_t place)
{
    clear(m_table.chains[place]);
    m_places.erase(m_table.chains[place].name);
    m_table.chains.erase(m_table.chains.begin() + static_cast<std::ptrdiff_t>(place));
    for (auto& entry : m_places)
        entry.second -= entry.second > place ? 1 : 0;
}

void TableModel::clear(Chain& chain)
{
    for (const TableRule& rule : chain.rules)
        countJump(rule, -1);
    chain.rules.clear();
}

void TableModel::countJump(const TableRule& rule, int by)
{
    if (std::string target = targetOf(rule); !isStandardTarget(target))
        m_jumps[std::move(target)] += by;
}

int TableModel::jumpsFromElsewhere(const Chain& chain) const
{
    const auto all = m_jumps.find(chain.name);
    if (all == m_jumps.end())
        return 0;
    const auto own =
        std::ranges::count_if(chain.rules, [&](const TableRule& rule) { return targetOf(rule) == chain.name; });
    return all->second - static_cast<int>(own);
}

} // namespace ebtables
