#include "ovsdb/database.hpp"

#include "ovsdb/error.hpp"

namespace ovsdb
{

std::optional<std::size_t> Table::find(std::string_view columnName) const
{
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].name == columnName)
            return i;
    }
    return std::nullopt;
}

const Table* Database::find(std::string_view tableName) const
{
    for (const Table& table : tables) {
        if (table.name == tableName)
            return &table;
    }
    return nullptr;
}

const Table& Database::at(std::string_view tableName) const
{
    const Table* table = find(tableName);
    if (table == nullptr)
        throw SchemaError("no table is called \"" + std::string(tableName) + "\"");
    return *table;
}

std::vector<std::string> Database::tableNames() const
{
    std::vector<std::string> names;
    for (const Table& table : tables)
        names.push_back(table.name);
    return names;
}

} // namespace ovsdb
