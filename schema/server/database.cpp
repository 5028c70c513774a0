#include "schema/server/database.hpp"

#include "schema/tables.hpp"

#include <string>
#include <utility>

namespace schema
{

namespace
{

ovsdb::Database makeDatabase()
{
    ovsdb::Database database{.name = std::string(databaseName), .schemaMajorVersion = majorVersion, .tables = {}};
    for (const Table& table : allTables()) {
        ovsdb::Table made{.name = std::string(table.name), .columns = {}};
        for (const Column& column : table.columns)
            made.columns.push_back({.name = std::string(column.name),
                                    .kind = column.isText() ? ovsdb::ColumnKind::Text : ovsdb::ColumnKind::Integer,
                                    .optional = column.mayBeUnset,
                                    .ifUnset = column.defaultValue()});
        database.tables.push_back(std::move(made));
    }
    const auto column = [](const char* name, ovsdb::ColumnKind kind) {
        return ovsdb::Column{.name = name, .kind = kind, .optional = false, .ifUnset = {}};
    };
    const auto text = [&column](const char* name) { return column(name, ovsdb::ColumnKind::Text); };
    const auto number = [&column](const char* name) { return column(name, ovsdb::ColumnKind::Integer); };
    database.tables.push_back({.name = std::string(acknowledgedTable),
                               .columns = {text("Table"), number("Row"), text("Warning")},
                               .mayBeMissing = true});
    database.tables.push_back(
        {.name = std::string(usedIdsTable), .columns = {text("Table"), number("LargestId")}, .mayBeMissing = true});
    return database;
}

} // namespace

const ovsdb::Database& serverDatabase()
{
    static const ovsdb::Database database = makeDatabase();
    return database;
}

} // namespace schema
