// The tables as the programs know them are the tables of the schema file.
#include "ovsdb/tables.hpp"

#include "ovsdb/json.hpp"
#include "ovsdb/schema_check.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace
{

using ovsdb::Json;

std::string schemaText()
{
    std::ifstream file(MOATKEEPER_SCHEMA);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> names()
{
    std::vector<std::string> result;
    for (const ovsdb::Table& table : ovsdb::allTables())
        result.emplace_back(table.name);
    return result;
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    const auto at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), by);
}

TEST(OvsdbTablesTest, EqualTheSchemaFile)
{
    const Json schema = ovsdb::parseJson(schemaText());
    EXPECT_EQ(*schema.find("name")->asText(), ovsdb::databaseName);
    const Json::Object& tables = *schema.find("tables")->asObject();
    ASSERT_EQ(tables.size(), ovsdb::allTables().size());
    for (std::size_t t = 0; t < tables.size(); ++t) {
        const ovsdb::Table& table = ovsdb::allTables()[t];
        EXPECT_EQ(tables[t].first, table.name);
        const Json::Object& columns = *tables[t].second.find("columns")->asObject();
        ASSERT_EQ(columns.size(), table.columns.size()) << table.name;
        for (std::size_t c = 0; c < columns.size(); ++c) {
            const ovsdb::Column& column = table.columns[c];
            EXPECT_EQ(columns[c].first, column.name) << table.name;
            const Json& type = *columns[c].second.find("type");
            EXPECT_EQ(*type.find("key")->find("type")->asText(),
                      column.kind == ovsdb::ColumnKind::Integer ? "integer" : "string");
            EXPECT_EQ(type.find("min") != nullptr, column.optional) << table.name << " " << column.name;
        }
    }
}

TEST(OvsdbTablesTest, IntegersAreBoundedTo32Bits)
{
    const Json schema = ovsdb::parseJson(schemaText());
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

TEST(OvsdbSchemaCheckTest, AcceptsOurSchemaAndMore)
{
    EXPECT_EQ(ovsdb::checkSchema(ovsdb::parseJson(schemaText()), names()), "1.0.0");
    const std::string more = replaced(schemaText(), R"("Id": {)", R"("Extra": {"type": "string"}, "Id": {)");
    EXPECT_NO_THROW(ovsdb::checkSchema(ovsdb::parseJson(more), names()));
}

struct OtherSchema {
    std::string what;
    std::string by;
    std::string message;
};

const OtherSchema otherSchemas[] = {
    {"\"1.0.0\"", "\"2.0.0\"", "expected schema version 1.x.y, found 2.0.0"},
    {"\"version\": \"1.0.0\",", "", "found none"},
    {"\"name\": \"moatkeeper\"", "\"name\": \"other\"", "found \"other\""},
    {"\"MoatKeeperRuleset\"", "\"Rules\"", "no table MoatKeeperRuleset"},
    {"\"VLANID\"", "\"Vlan\"", "column VLANID: missing"},
    {R"("IPPort": {"type": {"key": {"type": "integer", "minInteger": 0, "maxInteger": 65535}}})",
     R"("IPPort": {"type": "string"})", "column IPPort: expected type integer"},
    {R"("IPPort": {"type": {"key": {"type": "integer", "minInteger": 0, "maxInteger": 65535}}})",
     R"("IPPort": {"type": {"key": "integer", "min": 0, "max": "unlimited"}})", "column IPPort: expected one value"},
    {R"("IPPort": {"type": {"key": {"type": "integer", "minInteger": 0, "maxInteger": 65535}}})",
     R"("IPPort": {"type": {"key": "integer", "min": 0}})", "column IPPort: expected a value in every row"},
};

TEST(OvsdbSchemaCheckTest, SaysWhatIsDifferent)
{
    for (const auto& [what, by, message] : otherSchemas) {
        try {
            ovsdb::checkSchema(ovsdb::parseJson(replaced(schemaText(), what, by)), names());
            ADD_FAILURE() << "accepted without " << what;
        } catch (const ovsdb::SchemaError& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
}

} // namespace
