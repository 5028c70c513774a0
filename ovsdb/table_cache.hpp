// A copy of the configuration tables: rows by ascending Id, changed by whole updates only.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/json.hpp"
#include "platform/value_list.hpp"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ovsdb
{

// The server's own name of a row.
struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    auto operator<=>(const Uuid&) const = default;
    std::string toText() const;
    // Nothing unless the text is a UUID in its usual form of 36 characters.
    static std::optional<Uuid> fromText(std::string_view text);
};

struct Row {
    Uuid uuid;
    std::vector<tessera::Value> values; // one per column, in the order of Table::columns; unset ones are filled in

    bool operator==(const Row&) const = default;
};

// The three forms in which a server describes changes.
enum class UpdateFormat {
    OldAndNew, // "update": rows before and after
    Difference // "update2", "update3": only what differs
};

// One consistent state of some tables. Plain value.
class TableCache
{
public:
    // Empty tables. The names must be of tables of the database, which must outlive the cache and its copies; others
    // throw std::invalid_argument.
    TableCache(const Database& database, const std::vector<std::string>& tableNames);

    // The rows of a table by ascending Id; none when the table is not held. Valid until the next change.
    std::span<const Row> rows(std::string_view tableName) const;

    // The row's value by column name, nullptr when the table has no such column.
    static const tessera::Value* value(const Table& table, const Row& row, std::string_view columnName);

    bool holds(std::string_view tableName) const;
    std::vector<std::string> tableNames() const;

    // Takes over a description of changes: all of it, or, when any of it does not fit (unknown table, column or row,
    // wrong kind, integer outside 32 bits, missing column, a row twice), nothing, and throws ProtocolError.
    // Returns the tables of which at least one row is different now.
    std::set<std::string> apply(const Json& tableUpdates, UpdateFormat format);

    // Becomes the state that the description of all rows gives, under the rules of apply.
    std::set<std::string> replace(const Json& tableUpdates, UpdateFormat format);

private:
    struct Held {
        const Table* table;
        std::vector<Row> rows;
    };
    TableCache() = default;
    TableCache empty() const; // of the same tables
    Held* find(std::string_view tableName);

    std::vector<Held> m_tables;
};

} // namespace ovsdb
