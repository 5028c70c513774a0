// The configuration tables as the programs know them. The same facts as schema/moatkeeper.ovsschema; a test keeps
// the two equal.
#pragma once

#include "platform/value_list.hpp"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace ovsdb
{

inline constexpr std::string_view databaseName = "moatkeeper";
inline constexpr int schemaMajorVersion = 1;
inline constexpr std::string_view defaultSocketPath = "/tmp/cfgserver.socket";

enum class ColumnKind { Integer, Text };

// A column. An optional one may be left unset in a row, and then stands for the value given here; any other one that
// a client leaves out of an insert is 0 or the empty text, if the constraints of the column allow that.
struct Column {
    std::string_view name;
    ColumnKind kind;
    bool optional = false;
    std::int32_t integerIfUnset = 0;
    std::string_view textIfUnset = {};

    tessera::Value valueIfUnset() const;
};

struct Table {
    std::string_view name;
    std::span<const Column> columns;

    // Index into columns, or nothing.
    std::optional<std::size_t> find(std::string_view columnName) const;
};

// All six, in the order in which the daemon names them. Live for ever.
std::span<const Table> allTables();

// nullptr when there is no such table.
const Table* findTable(std::string_view name);

} // namespace ovsdb
