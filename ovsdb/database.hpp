// What a program knows of a database: which tables and columns it works with. The server's schema may hold more.
#pragma once

#include "platform/value_list.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovsdb
{

enum class ColumnKind { Integer, Text };

// A column. An optional one may be left unset in a row, and then stands for the value given here; any other one that
// a client leaves out of an insert is 0 or the empty text, if the constraints of the column allow that.
struct Column {
    std::string name;
    ColumnKind kind;
    bool optional = false;
    tessera::Value ifUnset; // of the column's kind
};

struct Table {
    std::string name;
    std::vector<Column> columns;
    bool mayBeMissing = false; // servers without it are served, too

    // Index into columns, or nothing.
    std::optional<std::size_t> find(std::string_view columnName) const;
};

// Whoever is given one keeps a reference to it.
struct Database {
    std::string name;
    int schemaMajorVersion;
    std::vector<Table> tables;

    // nullptr when there is no such table.
    const Table* find(std::string_view tableName) const;
    // As find; throws SchemaError when there is no such table.
    const Table& at(std::string_view tableName) const;
    std::vector<std::string> tableNames() const;
};

} // namespace ovsdb
