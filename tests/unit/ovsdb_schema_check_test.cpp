// Which schemas of a server the client works with.
#include "ovsdb/schema_check.hpp"

#include "ovsdb/error.hpp"
#include "schema/server/database.hpp"
#include "text/small_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

std::string check(const std::string& schema)
{
    return ovsdb::checkSchema(ovsdb::parseJson(schema), schema::serverDatabase(), schema::serverDatabase().name,
                              schema::serverDatabase().tableNames())
        .version;
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    const auto at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), by);
}

TEST(OvsdbSchemaCheckTest, AcceptsOurSchemaAndMore)
{
    EXPECT_EQ(check(text::readSmallFile(MOATKEEPER_SCHEMA)), "1.1.0");
    const std::string more =
        replaced(text::readSmallFile(MOATKEEPER_SCHEMA), R"("Id": {)", R"("Extra": {"type": "string"}, "Id": {)");
    EXPECT_NO_THROW(check(more));
}

struct OtherSchema {
    std::string what;
    std::string by;
    std::string message;
};

const OtherSchema otherSchemas[] = {
    {"\"1.1.0\"", "\"2.0.0\"", "expected schema version 1.x.y, found 2.0.0"},
    {"\"version\": \"1.1.0\",", "", "found none"},
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

TEST(OvsdbSchemaCheckTest, SomeTablesMayBeMissingAndNoColumn)
{
    const auto without = [](const char* table) {
        return replaced(text::readSmallFile(MOATKEEPER_SCHEMA), '"' + std::string(table) + '"', "\"Other\"");
    };
    const auto missing = [](const std::string& schema) {
        return ovsdb::checkSchema(ovsdb::parseJson(schema), schema::serverDatabase(), schema::serverDatabase().name,
                                  schema::serverDatabase().tableNames())
            .missing;
    };
    EXPECT_THAT(missing(text::readSmallFile(MOATKEEPER_SCHEMA)), testing::IsEmpty());
    for (const char* table : {"MoatKeeperAcknowledged", "MoatKeeperUsedIds"})
        EXPECT_THAT(missing(without(table)), testing::ElementsAre(table));
    EXPECT_THROW(check(without("LargestId")), ovsdb::SchemaError);
}

TEST(OvsdbSchemaCheckTest, SaysWhatIsDifferent)
{
    for (const auto& [what, by, message] : otherSchemas) {
        try {
            check(replaced(text::readSmallFile(MOATKEEPER_SCHEMA), what, by));
            ADD_FAILURE() << "accepted without " << what;
        } catch (const ovsdb::SchemaError& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
    }
}

} // namespace
