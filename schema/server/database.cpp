#include "schema/server/database.hpp"

#include "schema/device.hpp"
#include "schema/history.hpp"
#include "schema/tables.hpp"
#include "schema/trial.hpp"

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

using enum ovsdb::ColumnKind;

ovsdb::Column column(std::string_view name, ovsdb::ColumnKind kind)
{
    return {.name = std::string(name),
            .kind = kind,
            .ifUnset = kind == Text ? tessera::Value(std::string()) : tessera::Value(0)};
}

ovsdb::Column optionalText(std::string_view name)
{
    ovsdb::Column result = column(name, Text);
    result.optional = true;
    return result;
}

ovsdb::Database withDevices(ovsdb::Database database)
{
    database.tables.push_back(
        {.name = std::string(changeTable),
         .columns = {column(changeNumber, Integer), optionalText(changeEngine), column(changeHeartbeat, Integer)},
         .mayBeMissing = true});
    database.tables.push_back(
        {.name = std::string(deviceTable),
         .columns = {column(device::name, Text), column(device::number, Integer), column(device::since, Text),
                     column(device::inStep, Integer), column(device::inStepSince, Text), column(device::reason, Text),
                     column(device::rules, Integer), column(device::notInForce, Text),
                     column(device::notInForceCount, Integer), column(device::repaired, Text),
                     column(device::repairedWhat, Text), column(device::engine, Text), column(device::version, Text),
                     column(device::started, Text), column(device::seen, Text)},
         .mayBeMissing = true});
    database.tables.push_back({.name = std::string(historyTable),
                               .columns = {column(history::number, Integer), column(history::sum, Text)},
                               .mayBeMissing = true});
    database.tables.push_back(
        {.name = std::string(trialTable),
         .columns = {column(trial::change, Integer), column(trial::seconds, Integer), column(trial::began, Text),
                     column(trial::boot, Text), column(trial::uptime, Text), column(trial::user, Text),
                     column(trial::verb, Text), column(trial::changes, Text)},
         .mayBeMissing = true});
    return database;
}

ovsdb::Database makeDevicesDatabase()
{
    return {.name = std::string(databaseName),
            .schemaMajorVersion = majorVersion,
            .tables = {
                {.name = std::string(changeTable),
                 .columns = {column(changeNumber, Integer), column(changeHeartbeat, Integer)},
                 .mayBeMissing = true},
                {.name = std::string(deviceTable),
                 .columns = {column(device::name, Text), column(device::number, Integer), column(device::since, Text),
                             column(device::inStep, Integer), column(device::inStepSince, Text),
                             column(device::reason, Text), column(device::rules, Integer),
                             column(device::notInForceCount, Integer), column(device::repaired, Text),
                             column(device::repairedWhat, Text), column(device::engine, Text),
                             column(device::version, Text), column(device::started, Text), column(device::seen, Text)},
                 .mayBeMissing = true},
                {.name = std::string(historyTable),
                 .columns = {column(history::number, Integer), column(history::time, Text)},
                 .mayBeMissing = true}}};
}

ovsdb::Database makeHistoryDatabase()
{
    return {.name = std::string(databaseName),
            .schemaMajorVersion = majorVersion,
            .tables = {
                {.name = std::string(historyTable),
                 .columns = {column(history::number, Integer), column(history::time, Text), column(history::user, Text),
                             column(history::address, Text), column(history::host, Text), column(history::verb, Text),
                             column(history::rows, Integer), column(history::changes, Text),
                             column(history::undoes, Integer), column(history::sum, Text)},
                 .mayBeMissing = true}}};
}

} // namespace

const ovsdb::Database& serverDatabase()
{
    static const ovsdb::Database database = makeDatabase();
    return database;
}

const ovsdb::Database& serverDatabaseWithDevices()
{
    static const ovsdb::Database database = withDevices(serverDatabase());
    return database;
}

const ovsdb::Database& devicesDatabase()
{
    static const ovsdb::Database database = makeDevicesDatabase();
    return database;
}

const ovsdb::Database& historyDatabase()
{
    static const ovsdb::Database database = makeHistoryDatabase();
    return database;
}

} // namespace schema
