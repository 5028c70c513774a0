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
    return database;
}

} // namespace

const ovsdb::Database& serverDatabase()
{
    static const ovsdb::Database database = makeDatabase();
    return database;
}

} // namespace schema
