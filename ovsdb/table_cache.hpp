// A copy of the configuration tables: rows by ascending Id, changed by whole updates only.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/row.hpp"
#include "platform/value_list.hpp"

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ovsdb
{

class TableUpdate;
struct TableChanges;

// What a copy holds at most: over a million rows, and far more than the server itself can be asked to keep.
inline constexpr std::size_t maximumTableMemory = std::size_t{1} << 30;

// Hears of each row that becomes another one, before it does; nullptr: there is none. The cache is as it was.
using RowWatcher = std::function<void(const Table& table, const Row* before, const Row* after)>;

// One consistent state of some tables. Plain value.
class TableCache
{
public:
    // Empty tables. The names must be of tables of the database, which must outlive the cache and its copies; others
    // throw SchemaError.
    TableCache(const Database& database, const std::vector<std::string>& tableNames,
               std::size_t memoryLimit = maximumTableMemory);

    // The rows of a table by ascending Id; none when the table is not held. Valid until the next change.
    std::span<const Row> rows(std::string_view tableName) const;

    // The row's value by column name, or nothing when the table has no such column.
    static std::optional<tessera::Value> value(const Table& table, const Row& row, std::string_view columnName);

    // nullptr when the table is not held.
    const Table* find(std::string_view tableName) const;
    bool holds(std::string_view tableName) const { return find(tableName) != nullptr; }
    std::vector<std::string> tableNames() const;
    std::size_t memoryLimit() const { return m_memoryLimit; }

    // Takes over the changes: all of them, or, when any does not fit (a row to be inserted that is there, a row twice,
    // a row too many for the memory), none, and throws ProtocolError. The update was made from this state and is used
    // up. Returns the tables of which at least one row is different now.
    std::set<std::string> apply(TableUpdate& update, const RowWatcher& watcher = {});

    // Becomes the state that the update, which must insert all rows, gives; under the rules of apply.
    std::set<std::string> replace(TableUpdate& update, const RowWatcher& watcher = {});

private:
    struct Held {
        const Table* table;
        std::vector<Row> rows;
        std::size_t memory = 0;
    };
    std::size_t memory() const;
    static std::size_t check(const Held& held, TableChanges& changes);

    std::vector<Held> m_tables;
    std::size_t m_memoryLimit;
};

} // namespace ovsdb
