// The six configuration tables, described once: for the daemon's platform, the operator's tool and the documents. The
// server loads the same from moatkeeper.ovsschema; a test keeps the two equal.
#pragma once

#include "platform/value_list.hpp"
#include "schema/values.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace schema
{

inline constexpr std::string_view databaseName = "moatkeeper";
inline constexpr int majorVersion = 1;
inline constexpr std::string_view defaultSocketPath = "/tmp/cfgserver.socket";

// In the order in which the daemon names them.
enum class TableId { Global, InputPolicies, ForwardingPolicies, Rules, Filters, FilterRules };
inline constexpr std::size_t tableCount = 6;

struct Column {
    std::string_view name;    // on the server
    std::string_view heading; // in tables for people
    ValueKind kind;
    bool required;            // has no value that stands for "nothing given"
    std::string_view meaning; // one sentence without its full stop

    // A column that may be left unset in a row then stands for the value given here. Any other one that a client
    // leaves out of an insert is 0 or the empty text, if the constraints of the column allow that.
    bool mayBeUnset = false;
    std::int32_t numberIfUnset = 0;
    std::string_view textIfUnset = {};

    bool isText() const { return schema::isText(kind); }
    // The value that a row has which does not give the column.
    tessera::Value defaultValue() const;
};

struct Table {
    TableId id;
    std::string_view name;  // on the server
    std::string_view word;  // for people: "rule"
    std::string_view title; // above a table for people: "Rules"
    std::span<const Column> columns;

    // Index into columns, or nothing.
    std::optional<std::size_t> find(std::string_view columnName) const;
    // Index of the column, which must exist.
    std::size_t at(std::string_view columnName) const;
    bool hasIds() const { return id != TableId::Global; }
};

// All six, in the order of TableId. They live for ever.
std::span<const Table> allTables();
const Table& table(TableId id);
// By the server's name; nullptr when there is none.
const Table* findTable(std::string_view name);

} // namespace schema
