// Changes of tables on their way in: rows are read and kept as they come, and the tables stay as they are until all of
// the message is there.
#pragma once

#include "ovsdb/row_reader.hpp"
#include "ovsdb/table_cache.hpp"

#include <cstddef>
#include <string_view>
#include <vector>

namespace ovsdb
{

struct TableChanges {
    const Table* table;
    std::vector<RowChange> rows;
};

// Refers to the tables, which do not change while it lives. Throws ProtocolError for what does not fit them.
class TableUpdate
{
public:
    TableUpdate(const TableCache& tables, UpdateFormat format) : m_tables(tables), m_format(format) {}

    // Takes in what a server says of one row. The rows of all tables may take as much memory as the tables' limit says.
    void add(std::string_view tableName, std::string_view rowName, const Json& change);

    // The message has come to its end: what is left of its object of tables says how many rows each has, as
    // {"table": {"": number}, ...}. Refuses other objects, other tables and rows that stood anywhere else.
    void finish(const Json& tables) const;

    std::vector<TableChanges>& changes() { return m_changes; }

private:
    TableChanges& changesOf(std::string_view tableName);
    const Row* find(const Table& table, const Uuid& uuid);

    const TableCache& m_tables;
    UpdateFormat m_format;
    std::vector<TableChanges> m_changes;
    std::size_t m_memory = 0;

    // The rows of the table that was asked for last, by UUID.
    const Table* m_indexed = nullptr;
    std::vector<const Row*> m_index;
};

} // namespace ovsdb
