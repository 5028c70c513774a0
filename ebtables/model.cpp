#include "ebtables/model.hpp"

#include <algorithm>
#include <unordered_map>

namespace ebtables
{

namespace
{

constexpr const char* missing = "No chain/target/match by that name.";

class Model
{
public:
    explicit Model(Table table)
    {
        for (Chain& chain : table.chains) {
            for (const TableRule& rule : chain.rules)
                count(rule, 1);
            m_chains.emplace(chain.name, std::move(chain.rules));
        }
    }

    std::optional<std::string> play(const Command& command)
    {
        const auto found = m_chains.find(command.chain);
        if (command.kind == CommandKind::NewChain) {
            if (found != m_chains.end())
                return "Chain already exists.";
            m_chains[command.chain];
            return std::nullopt;
        }
        if (found == m_chains.end())
            return missing;
        std::vector<TableRule>& rules = found->second;
        switch (command.kind) {
        case CommandKind::Append:
        case CommandKind::Insert:
            return add(rules, command);
        case CommandKind::Delete:
            return remove(rules, command.rule);
        case CommandKind::Flush:
            clear(rules);
            return std::nullopt;
        case CommandKind::DeleteChain:
            if (jumpsFromElsewhere(command.chain, rules) > 0)
                return "CHAIN_DEL failed (Device or resource busy): a rule jumps to the chain";
            clear(rules);
            m_chains.erase(found);
            return std::nullopt;
        default:
            return std::nullopt;
        }
    }

private:
    std::optional<std::string> add(std::vector<TableRule>& rules, const Command& command)
    {
        const std::string& target = command.rule.target;
        if (!isStandardTarget(target) && !m_chains.contains(target))
            return "Chain '" + target + "' does not exist";
        std::size_t at = rules.size();
        if (command.kind == CommandKind::Insert) {
            if (command.position > rules.size() + 1)
                return "Index of insertion too big.";
            at = command.position - 1;
        }
        const TableRule rule{{}, command.rule, {}};
        count(rule, 1);
        rules.insert(rules.begin() + static_cast<std::ptrdiff_t>(at), rule);
        return std::nullopt;
    }

    std::optional<std::string> remove(std::vector<TableRule>& rules, const Rule& rule)
    {
        const auto found = std::ranges::find_if(rules, [&](const TableRule& r) { return r.rule == rule; });
        if (found != rules.end()) {
            count(*found, -1);
            rules.erase(found);
            return std::nullopt;
        }
        if (std::ranges::any_of(rules, [](const TableRule& r) { return !r.rule; }))
            return std::nullopt;
        return "Bad rule (does a matching rule exist in that chain?).";
    }

    void clear(std::vector<TableRule>& rules)
    {
        for (const TableRule& rule : rules)
            count(rule, -1);
        rules.clear();
    }

    static std::string target(const TableRule& rule)
    {
        if (rule.rule)
            return rule.rule->target;
        const std::size_t jump = rule.text.rfind("-j ");
        return jump == std::string::npos ? "" : rule.text.substr(jump + 3, rule.text.find(' ', jump + 3) - jump - 3);
    }

    void count(const TableRule& rule, int by)
    {
        if (const std::string to = target(rule); !isStandardTarget(to))
            m_jumps[to] += by;
    }

    int jumpsFromElsewhere(const std::string& chain, const std::vector<TableRule>& own)
    {
        const auto to = m_jumps.find(chain);
        if (to == m_jumps.end())
            return 0;
        return to->second -
               static_cast<int>(std::ranges::count_if(own, [&](const TableRule& r) { return target(r) == chain; }));
    }

    std::unordered_map<std::string, std::vector<TableRule>> m_chains;
    std::unordered_map<std::string, int> m_jumps;
};

} // namespace

std::vector<std::optional<std::string>> foretell(Table table, std::span<const Command> commands,
                                                 const std::vector<bool>& skip)
{
    Model model(std::move(table));
    std::vector<std::optional<std::string>> reasons(commands.size());
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (i >= skip.size() || !skip[i])
            reasons[i] = model.play(commands[i]);
    }
    return reasons;
}

} // namespace ebtables
