// What the bridge's tables are after a command, and which commands the tool refuses because of what they hold.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ebtables
{

// A table that changes as the kernel's does. A plain value.
class TableModel
{
public:
    explicit TableModel(Table table = emptyTable());

    // Carries the command out, or says in the tool's words why the tool refuses it and changes nothing. In doubt (rules
    // with parts that are unknown here) a command counts as taken. What the command puts in bears the origin.
    // Time: constant, but for what a rule's place in its chain and the end of a chain cost.
    std::optional<std::string> apply(const Command& command, Origin origin = noOrigin);

    // Chains in the order of their creation, the built-in ones first.
    const Table& table() const { return m_table; }

private:
    std::optional<std::string> add(Chain& chain, const Command& command, Origin origin);
    std::optional<std::string> remove(Chain& chain, const Rule& rule);
    void removeChain(std::size_t place);
    void clear(Chain& chain);
    void countJump(const TableRule& rule, int by);
    int jumpsFromElsewhere(const Chain& chain) const;

    Table m_table;
    std::unordered_map<std::string, std::size_t> m_places; // of the chains
    std::unordered_map<std::string, int> m_jumps;          // to the chain of that name
};

} // namespace ebtables
