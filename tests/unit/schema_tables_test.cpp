// The tables as the programs know them are the tables of the schema file.
#include "schema/tables.hpp"

#include "ovsdb/json.hpp"
#include "ovsdb/schema_check.hpp"
#include "schema/device.hpp"
#include "schema/history.hpp"
#include "schema/server/database.hpp"
#include "schema/trial.hpp"
#include "schema/values.hpp"
#include "text/small_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using ovsdb::Json;

TEST(SchemaTablesTest, EqualTheSchemaFile)
{
    const Json schema = ovsdb::parseJson(text::readSmallFile(MOATKEEPER_SCHEMA));
    EXPECT_EQ(*schema.find("name")->asText(), schema::databaseName);
    const Json::Object& tables = *schema.find("tables")->asObject();
    ASSERT_EQ(tables.size(), schema::serverDatabaseWithDevices().tables.size());
    for (std::size_t t = 0; t < schema::allTables().size(); ++t) {
        const schema::Table& table = schema::allTables()[t];
        EXPECT_EQ(tables[t].first, table.name);
        const Json::Object& columns = *tables[t].second.find("columns")->asObject();
        ASSERT_EQ(columns.size(), table.columns.size()) << table.name;
        for (std::size_t c = 0; c < columns.size(); ++c) {
            const schema::Column& column = table.columns[c];
            EXPECT_EQ(columns[c].first, column.name) << table.name;
            const Json& type = *columns[c].second.find("type");
            EXPECT_EQ(*type.find("key")->find("type")->asText(), column.isText() ? "string" : "integer");
            EXPECT_EQ(type.find("min") != nullptr, column.mayBeUnset) << table.name << " " << column.name;
        }
    }
}

TEST(SchemaTablesTest, WhatIsKeptBesideEqualsTheSchemaFile)
{
    const Json schema = ovsdb::parseJson(text::readSmallFile(MOATKEEPER_SCHEMA));
    std::size_t beside = 0;
    for (const ovsdb::Table& table : schema::serverDatabase().tables) {
        if (schema::findTable(table.name) != nullptr)
            continue;
        ++beside;
        EXPECT_TRUE(table.mayBeMissing) << table.name;
        const Json* found = schema.find("tables")->find(table.name);
        ASSERT_NE(found, nullptr) << table.name;
        EXPECT_EQ(found->find("columns")->asObject()->size(), table.columns.size()) << table.name;
    }
    EXPECT_EQ(beside, 2U);
}

TEST(SchemaTablesTest, TheTablesOfDevicesEqualTheSchemaFile)
{
    const Json schema = ovsdb::parseJson(text::readSmallFile(MOATKEEPER_SCHEMA));
    const std::vector<std::string> names = schema::serverDatabaseWithDevices().tableNames();
    EXPECT_NO_THROW(EXPECT_THAT(
        ovsdb::checkSchema(schema, schema::serverDatabaseWithDevices(), schema::serverDatabaseWithDevices().name, names)
            .missing,
        testing::IsEmpty()));
    EXPECT_NO_THROW(EXPECT_THAT(ovsdb::checkSchema(schema, schema::historyDatabase(), schema::historyDatabase().name,
                                                   schema::historyDatabase().tableNames())
                                    .missing,
                                testing::IsEmpty()));
    const Json::Object& kept = *schema.find("tables")->find(schema::historyTable)->find("columns")->asObject();
    EXPECT_EQ(kept.size(), schema::historyDatabase().at(schema::historyTable).columns.size());
    for (const std::string_view name : {schema::changeTable, schema::deviceTable, schema::trialTable}) {
        const Json::Object& columns = *schema.find("tables")->find(name)->find("columns")->asObject();
        EXPECT_EQ(columns.size(), schema::serverDatabaseWithDevices().at(name).columns.size()) << name;
    }
    const auto limit = [&schema](std::string_view table, std::string_view column, const char* name) {
        const Json& type = *schema.find("tables")->find(table)->find("columns")->find(column)->find("type");
        return type.find("key")->find(name)->asInteger();
    };
    EXPECT_EQ(limit(schema::deviceTable, schema::device::name, "maxLength"), schema::maximumDeviceName);
    EXPECT_EQ(limit(schema::changeTable, schema::changeNumber, "maxInteger"), schema::changeNumbers);
    EXPECT_EQ(limit(schema::historyTable, schema::history::changes, "maxLength"), schema::maximumChanges);
    EXPECT_EQ(limit(schema::trialTable, schema::trial::changes, "maxLength"), schema::maximumChanges);
    EXPECT_EQ(limit(schema::trialTable, schema::trial::seconds, "maxInteger"), schema::longestTrial);
}

TEST(SchemaTablesTest, ANumberInForceIncludesThoseBefore)
{
    using schema::changeNumbers, schema::includes;
    EXPECT_TRUE(includes(5, 5));
    EXPECT_TRUE(includes(6, 5));
    EXPECT_FALSE(includes(5, 6));
    EXPECT_FALSE(includes(-1, 0));
    EXPECT_TRUE(includes(0, changeNumbers - 1)) << "the numbers begin again";
    EXPECT_FALSE(includes(changeNumbers - 1, 0));
}

TEST(SchemaTablesTest, DeviceNames)
{
    for (const char* name : {"a", "bridge-7.example_net", "0"})
        EXPECT_TRUE(schema::isDeviceName(name)) << name;
    EXPECT_TRUE(schema::isDeviceName(std::string(64, 'x')));
    for (const std::string& name :
         {std::string(), std::string("a b"), std::string("a\n"), std::string("\xc3\xa4"), std::string(65, 'x')})
        EXPECT_FALSE(schema::isDeviceName(name)) << name;
}

TEST(SchemaTablesTest, IntegersAreBoundedTo32Bits)
{
    const Json schema = ovsdb::parseJson(text::readSmallFile(MOATKEEPER_SCHEMA));
    for (const auto& [tableName, table] : *schema.find("tables")->asObject()) {
        for (const auto& [name, column] : *table.find("columns")->asObject()) {
            const Json& key = *column.find("type")->find("key");
            if (*key.find("type")->asText() != "integer")
                continue;
            EXPECT_GE(key.find("minInteger")->asInteger(), INT32_MIN) << tableName << " " << name;
            EXPECT_LE(key.find("maxInteger")->asInteger(), INT32_MAX) << tableName << " " << name;
        }
    }
}

// The server refuses early what the daemon would leave out, and nothing that it would not.
TEST(SchemaTablesTest, TextsAreAsLongInTheSchemaFile)
{
    const Json schema = ovsdb::parseJson(text::readSmallFile(MOATKEEPER_SCHEMA));
    for (const schema::Table& table : schema::allTables()) {
        for (const schema::Column& column : table.columns) {
            if (!column.isText())
                continue;
            const Json& key =
                *schema.find("tables")->find(table.name)->find("columns")->find(column.name)->find("type")->find("key");
            if (const Json* values = key.find("enum")) {
                for (const Json& value : *(*values->asArray())[1].asArray())
                    EXPECT_FALSE(schema::expectedOperand(column.kind, *value.asText())) << column.name;
                continue;
            }
            EXPECT_EQ(key.find("maxLength")->asInteger(), schema::longestText(column.kind)) << column.name;
            EXPECT_EQ(key.find("minLength") != nullptr, column.required) << table.name << ' ' << column.name;
        }
    }
}

} // namespace
