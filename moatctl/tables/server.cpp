#include "moatctl/tables/server.hpp"

#include "ovsdb/client.hpp"
#include "schema/server/database.hpp"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace moatctl
{

Configuration toConfiguration(const ovsdb::TableCache& cache)
{
    Configuration configuration;
    for (const schema::Table& table : schema::allTables()) {
        for (const ovsdb::Row& from : cache.rows(table.name)) {
            Row row(table);
            row.values = from.values.toList();
            row.uuid = from.uuid;
            configuration.add(std::move(row));
        }
    }
    // Rows of tables that are unknown here are another client's.
    for (const ovsdb::Row& from : cache.rows(schema::acknowledgedTable)) {
        if (const schema::Table* table = schema::findTable(from.values[0].getText()))
            configuration.acknowledged[{table->id, from.values[1].getInteger(), from.values[2].getText()}] = from.uuid;
    }
    for (const ovsdb::Row& from : cache.rows(schema::usedIdsTable)) {
        if (const schema::Table* table = schema::findTable(from.values[0].getText())) {
            configuration.usedIds.emplace(table->id, from);
            configuration.rememberId(table->id, from.values[1].getInteger());
        }
    }
    return configuration;
}

Configuration loadFromServer(ovsdb::Client& client)
{
    std::vector<std::string> names = schema::serverDatabase().tableNames();
    std::erase_if(names, [&client](const std::string& name) {
        return std::ranges::find(client.tableNames(), name) == client.tableNames().end();
    });
    return toConfiguration(client.read(names));
}

} // namespace moatctl
