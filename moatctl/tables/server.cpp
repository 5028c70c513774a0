#include "moatctl/tables/server.hpp"

#include "ovsdb/client.hpp"

#include <utility>

namespace moatctl
{

Configuration toConfiguration(const ovsdb::TableCache& cache)
{
    Configuration configuration;
    for (const schema::Table& table : schema::allTables()) {
        for (const ovsdb::Row& from : cache.rows(table.name)) {
            Row row(table);
            row.values = from.values;
            row.uuid = from.uuid;
            configuration.add(std::move(row));
        }
    }
    return configuration;
}

Configuration loadFromServer(ovsdb::Client& client)
{
    return toConfiguration(client.read());
}

} // namespace moatctl
