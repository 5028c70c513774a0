// What the six tables and their columns mean to a person: the one place for messages, help, manual page and checks.
#pragma once

#include "ovsdb/tables.hpp"
#include "platform/value_list.hpp"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace moatctl
{

// In the order of ovsdb::allTables().
enum class TableId { Global, InputPolicies, ForwardingPolicies, Rules, Filters, FilterRules };
inline constexpr std::size_t tableCount = 6;

// The kinds of values that the daemon and the kernel's tool tell apart.
enum class ValueKind {
    Id,
    Switch, // 0 or 1
    RulePriority,
    FilterPriority,
    Interface,
    Mac,
    VlanId,
    Ethertype,
    Network, // IPv4 or IPv6
    Protocol,
    Port,
    Target,
    Criteria,
    Mode,
    FilterId,
    FilterMatch,
};

struct ColumnInfo {
    std::string_view name;    // on the server
    std::string_view heading; // in tables for people
    ValueKind kind;
    bool required;            // has no value that stands for "nothing given"
    std::string_view meaning; // one sentence without its full stop
};

struct TableInfo {
    TableId id;
    const ovsdb::Table* table;           // name and columns on the server
    std::string_view word;               // on the command line: "rule"
    std::string_view title;              // above a table for people: "Rules"
    std::span<const ColumnInfo> columns; // same order as table->columns

    std::string_view name() const { return table->name; }
    // Index of the column, which must exist.
    std::size_t at(std::string_view columnName) const;
    // The value of a column that a row does not give.
    tessera::Value defaultOf(std::size_t column) const;
    bool hasIds() const { return id != TableId::Global; }
};

// All six, in the order of TableId.
std::span<const TableInfo> allTables();
const TableInfo& tableInfo(TableId id);
// By the server's name or the command line's word, whatever the case; nullptr when there is none.
const TableInfo* findTable(std::string_view nameOrWord);

// What values are accepted: "a MAC address such as 00:11:22:33:44:55, with /MASK if needed".
std::string_view expectedValue(ValueKind kind);

} // namespace moatctl
