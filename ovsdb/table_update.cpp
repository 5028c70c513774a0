#include "ovsdb/table_update.hpp"

#include <algorithm>
#include <string>
#include <utility>

namespace ovsdb
{

namespace
{

[[noreturn]] void refuse(const std::string& reason)
{
    throw ProtocolError("change of tables refused: " + reason);
}

} // namespace

void TableUpdate::add(std::string_view tableName, std::string_view rowName, const Json& change)
{
    TableChanges& changes = changesOf(tableName);
    RowChange read = readChange(*changes.table, rowName, change, m_format,
                                [&](const Uuid& uuid) { return find(*changes.table, uuid); });
    m_memory += memoryOf(read.row);
    if (m_memory > m_tables.memoryLimit())
        refuse("rows of more than " + std::to_string(m_tables.memoryLimit()) + " bytes");
    changes.rows.push_back(std::move(read));
}

void TableUpdate::finish(const Json& tables) const
{
    const Json::Object* members = tables.asObject();
    if (members == nullptr)
        refuse(std::string("tables: expected an object, found ") + tables.kindName());
    std::size_t counted = 0;
    for (const auto& [name, rows] : *members) {
        if (!m_tables.holds(name))
            refuse("unknown table " + shownName(name));
        const Json* count = rows.find("");
        if (count == nullptr)
            refuse("table " + name + ": expected an object, found " + rows.kindName());
        const auto changes = std::ranges::find(m_changes, m_tables.find(name), &TableChanges::table);
        const std::size_t read = changes != m_changes.end() ? changes->rows.size() : 0;
        if (count->asInteger() != static_cast<std::int64_t>(read))
            refuse("table " + name + ": rows in another place of the message");
        counted += changes != m_changes.end() ? 1 : 0;
    }
    if (counted != m_changes.size())
        refuse("rows in another place of the message");
}

TableChanges& TableUpdate::changesOf(std::string_view tableName)
{
    const Table* table = m_tables.find(tableName);
    if (table == nullptr)
        refuse("unknown table " + shownName(tableName));
    const auto found = std::ranges::find(m_changes, table, &TableChanges::table);
    return found != m_changes.end() ? *found : m_changes.emplace_back(TableChanges{.table = table, .rows = {}});
}

const Row* TableUpdate::find(const Table& table, const Uuid& uuid)
{
    const auto uuidOf = [](const Row* row) { return row->uuid; };
    if (m_indexed != &table) {
        m_index.clear();
        for (const Row& row : m_tables.rows(table.name))
            m_index.push_back(&row);
        std::ranges::sort(m_index, {}, uuidOf);
        m_indexed = &table;
    }
    const auto found = std::ranges::lower_bound(m_index, uuid, {}, uuidOf);
    return found != m_index.end() && (*found)->uuid == uuid ? *found : nullptr;
}

} // namespace ovsdb
