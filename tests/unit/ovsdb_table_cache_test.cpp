#include "ovsdb/table_cache.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/table_update.hpp"
#include "schema/server/database.hpp"

#include <gtest/gtest.h>

namespace
{

using ovsdb::parseJson;
using ovsdb::ProtocolError;
using ovsdb::Row;
using ovsdb::TableCache;
using ovsdb::TableUpdate;
using ovsdb::UpdateFormat;
using Names = std::set<std::string>;

const std::string u1 = "aaaaaaaa-0000-0000-0000-000000000001";
const std::string u2 = "aaaaaaaa-0000-0000-0000-000000000002";
const std::string policies = "MoatKeeperInputPolicy";

TEST(RowValuesTest, GiveBackWhatTheyWereMadeOf)
{
    using tessera::Value;
    const std::vector<Value> list{
        Value(std::string()),          Value(-7), Value("eth0"), Value(2147483647), Value(-2147483647 - 1),
        Value(std::string("a\0b", 3)), Value("")};
    const ovsdb::RowValues values(list);
    EXPECT_EQ(values.toList(), list);
    EXPECT_EQ(values.text(2), "eth0");
    EXPECT_EQ(values.integer(2), 0);
    EXPECT_EQ(values.text(3), "");
    EXPECT_EQ(values.integer(4), -2147483647 - 1);
    EXPECT_EQ(values.text(5), std::string_view("a\0b", 3));

    EXPECT_EQ(values, ovsdb::RowValues(list));
    const std::vector<Value> other{Value(4), Value("")};
    const std::vector<Value> swapped{Value(""), Value(4)};
    EXPECT_NE(ovsdb::RowValues(other), ovsdb::RowValues(swapped));
    EXPECT_EQ(ovsdb::RowValues().size(), 0U);
}

// One table's changes as JSON text: {"table": {uuid: change}}.
std::string change(const std::string& uuid, const std::string& what, const std::string& table = policies)
{
    return R"({")" + table + R"(": {")" + uuid + R"(": )" + what + "}}";
}

// The changes, as a session hands them over: the rows one by one, then the object that they stood in.
TableUpdate updateOf(const TableCache& cache, const std::string& json, UpdateFormat format)
{
    TableUpdate update(cache, format);
    ovsdb::Json tables = parseJson(json);
    ovsdb::Json::Object* members = tables.asObject();
    for (std::size_t i = 0; members != nullptr && i < members->size(); ++i) {
        auto& [table, rows] = (*members)[i];
        if (rows.asObject() == nullptr)
            continue;
        for (const auto& [uuid, row] : *rows.asObject())
            update.add(table, uuid, row);
        const auto count = static_cast<std::int64_t>(rows.asObject()->size());
        rows = ovsdb::Json(ovsdb::Json::Object{{"", ovsdb::Json(count)}});
    }
    update.finish(tables);
    return update;
}

Names takeChanges(TableCache& cache, const std::string& json, UpdateFormat format = UpdateFormat::Difference)
{
    TableUpdate update = updateOf(cache, json, format);
    return cache.apply(update);
}

Names takeState(TableCache& cache, const std::string& json, UpdateFormat format = UpdateFormat::Difference)
{
    TableUpdate update = updateOf(cache, json, format);
    return cache.replace(update);
}

TableCache filled()
{
    TableCache cache(schema::serverDatabase(), {policies, "MoatKeeperBridgeFilterRules"});
    takeChanges(cache, change(u1, R"({"insert": {"Id": 7, "Interface": "eth0", "Policy": "DROP"}})"));
    return cache;
}

std::int32_t integer(const TableCache& cache, std::size_t row, const char* column)
{
    return TableCache::value(schema::serverDatabase().at(policies), cache.rows(policies)[row], column)->getInteger();
}

TEST(OvsdbTableCacheTest, UnsetColumnsHaveTheirValue)
{
    const TableCache cache = filled();
    ASSERT_EQ(cache.rows(policies).size(), 1U);
    EXPECT_EQ(integer(cache, 0, "Id"), 7);
    EXPECT_EQ(integer(cache, 0, "Enabled"), 1);
    EXPECT_EQ(integer(cache, 0, "EnableLogging"), 0);
    EXPECT_EQ(TableCache::value(schema::serverDatabase().at(policies), cache.rows(policies)[0], "Colour"),
              std::nullopt);
    EXPECT_TRUE(cache.rows("MoatKeeperBridgeFilterRules").empty());
    EXPECT_TRUE(cache.rows("Elsewhere").empty());
}

TEST(OvsdbTableCacheTest, RowsStandByAscendingId)
{
    TableCache cache = filled();
    takeChanges(cache, change(u2, R"({"insert": {"Id": -3, "Interface": "eth0", "Policy": "DROP"}})"));
    EXPECT_EQ(integer(cache, 0, "Id"), -3);
    takeChanges(cache, change(u2, R"({"modify": {"Id": 30}})"));
    EXPECT_EQ(integer(cache, 0, "Id"), 7);
    EXPECT_EQ(integer(cache, 1, "Id"), 30);
}

TEST(OvsdbTableCacheTest, NamesOnlyTablesThatDiffer)
{
    TableCache cache = filled();
    EXPECT_EQ(takeChanges(cache, change(u1, R"({"modify": {"Enabled": 0}})")), Names{policies});
    EXPECT_EQ(integer(cache, 0, "Enabled"), 0);
    EXPECT_EQ(takeChanges(cache, change(u1, R"({"modify": {"Enabled": 0}})")), Names{});
    EXPECT_EQ(takeChanges(cache, change(u1, R"({"modify": {"Enabled": ["set", []]}})")), Names{policies});
    EXPECT_EQ(integer(cache, 0, "Enabled"), 1);
    EXPECT_EQ(takeChanges(cache, "{}"), Names{});
    EXPECT_EQ(takeChanges(cache, change(u1, R"({"delete": null})")), Names{policies});
    EXPECT_TRUE(cache.rows(policies).empty());
}

TEST(OvsdbTableCacheTest, ReplaceComparesWithTheStateBefore)
{
    TableCache cache = filled();
    const std::string same = R"({"initial": {"Id": 7, "Interface": "eth0", "Policy": "DROP"}})";
    EXPECT_EQ(takeState(cache, change(u1, same)), Names{});
    EXPECT_EQ(takeState(cache, "{}"), Names{policies});
    EXPECT_TRUE(cache.rows(policies).empty());
}

TEST(OvsdbTableCacheTest, OldAndNew)
{
    const std::string row = R"({"Id": 7, "Enabled": 1, "Interface": "eth0", "Policy": "DROP", "EnableLogging": )";
    TableCache cache = filled();
    EXPECT_EQ(takeChanges(cache, change(u1, R"({"old": {"EnableLogging": 0}, "new": )" + row + "1}}"),
                          UpdateFormat::OldAndNew),
              Names{policies});
    EXPECT_EQ(integer(cache, 0, "EnableLogging"), 1);
    takeChanges(cache, change(u1, R"({"old": )" + row + "1}}"), UpdateFormat::OldAndNew);
    EXPECT_TRUE(cache.rows(policies).empty());
}

struct Refused {
    std::string update;
    std::string reason;
    UpdateFormat format = UpdateFormat::Difference;
};

const std::string good = R"({"insert": {"Id": 8, "Interface": "eth1", "Policy": "DROP"}})";

const Refused refusedUpdates[] = {
    {"[]", "expected an object, found a list"},
    {R"({"Elsewhere": {}})", "unknown table"},
    {R"({"MoatKeeper": {}})", "unknown table"}, // one of ours, not subscribed
    {R"({"MoatKeeperInputPolicy": 1})", "expected an object"},
    {change("x", good), "no UUID"},
    {change(u2.substr(1) + "g", good), "no UUID"},
    {change(u2, "5"), "expected an object"},
    {change(u2, "{}"), "expected one of"},
    {change(u2, R"({"grow": {}})"), "expected one of"},
    {change(u2, R"({"insert": {}, "modify": {}})"), "expected one of"},
    {change(u1, good), "there is such a row already"},
    {change(u2, R"({"modify": {"Enabled": 0}})"), "there is no such row"},
    {change(u2, R"({"delete": null})"), "there is no such row"},
    {change(u1, R"({"modify": {"Colour": 0}})"), "unknown column \"Colour\""},
    {change(u1, R"({"modify": {"Id": "7"}})"), "expected an integer, found a text"},
    {change(u1, R"({"modify": {"Id": 1.5}})"), "expected an integer, found a number"},
    {change(u1, R"({"modify": {"Id": true}})"), "expected an integer, found a boolean"},
    {change(u1, R"({"modify": {"Id": 2147483648}})"), "does not fit 32 bits"},
    {change(u1, R"({"modify": {"Id": -2147483649}})"), "does not fit 32 bits"},
    {change(u1, R"({"modify": {"Id": 18446744073709551616}})"), "expected an integer"},
    {change(u1, R"({"modify": {"Policy": 1}})"), "expected a text, found an integer"},
    {change(u1, R"({"modify": {"Policy": null}})"), "expected a text, found null"},
    {change(u1, R"({"modify": {"Policy": ["set", []]}})"), "expected one value, found a list"},
    {change(u1, R"({"modify": {"Enabled": ["set", [0, 1]]}})"), "expected one value"},
    {change(u1, R"({"modify": {"Enabled": ["map", []]}})"), "expected one value"},
    {change(u1, R"({"modify": {"Enabled": []}})"), "expected one value"},
    {change(u1, R"({"modify": 7})"), "expected an object"},
    // A good change beside a bad one, in another table and in the same one.
    {R"({"MoatKeeperInputPolicy": {")" + u2 + R"(": )" + good + R"(}, "Elsewhere": {}})", "unknown table"},
    {R"({"MoatKeeperInputPolicy": {")" + u2 + R"(": )" + good + R"(, "x": )" + good + "}}", "no UUID"},
    {R"({"MoatKeeperInputPolicy": {")" + u2 + R"(": )" + good + R"(, "AAAAAAAA-0000-0000-0000-000000000002": )" + good +
         "}}",
     "twice"},
    {change(u2, R"({"new": {"Id": 1}})"), "is missing", UpdateFormat::OldAndNew},
    {change(u2, "{}"), "expected old, new or both", UpdateFormat::OldAndNew},
    {change(u2, R"({"newer": {}})"), "expected old, new or both", UpdateFormat::OldAndNew},
    {change(u2, R"({"old": {}})"), "there is no such row", UpdateFormat::OldAndNew},
    {change(u1, R"({"new": {"Id": 7, "Enabled": 1, "Interface": "", "Policy": "DROP", "EnableLogging": 0}})"),
     "there is such a row already", UpdateFormat::OldAndNew},
    {change(u1, R"({"old": {"Colour": 1}})"), "unknown column", UpdateFormat::OldAndNew},
};

TEST(OvsdbTableCacheTest, ARefusedUpdateLeavesEverythingAsItWas)
{
    for (const auto& [update, reason, format] : refusedUpdates) {
        SCOPED_TRACE(update);
        TableCache cache = filled();
        const std::vector<Row> before(cache.rows(policies).begin(), cache.rows(policies).end());
        try {
            takeChanges(cache, update, format);
            ADD_FAILURE() << "accepted";
        } catch (const ProtocolError& e) {
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
        EXPECT_EQ(before, std::vector<Row>(cache.rows(policies).begin(), cache.rows(policies).end()));
        EXPECT_THROW(takeState(cache, R"({"Elsewhere": {}})", format), ProtocolError);
        EXPECT_EQ(before, std::vector<Row>(cache.rows(policies).begin(), cache.rows(policies).end()));
    }
}

TEST(OvsdbTableCacheTest, OnlyConfigurationTables)
{
    EXPECT_THROW(TableCache(schema::serverDatabase(), {"Elsewhere"}), ovsdb::SchemaError);
}

TEST(OvsdbUuidTest, TextAndBack)
{
    const auto uuid = ovsdb::Uuid::fromText("01234567-89ab-cdef-FEDC-ba9876543210");
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ(uuid->toText(), "01234567-89ab-cdef-fedc-ba9876543210");
    EXPECT_FALSE(ovsdb::Uuid::fromText("0123456-789ab-cdef-fedc-ba9876543210").has_value());
}

} // namespace
