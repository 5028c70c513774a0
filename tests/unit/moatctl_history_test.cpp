// What the history keeps of a change, which change is undone next, and the way back.
#include "moatctl/tables/history.hpp"

#include "moatctl/exit_status.hpp"
#include "ovsdb/error.hpp"
#include "schema/server/database.hpp"
#include "tests/unit/rule_row.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace moatctl
{

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

HistoryEntry entryOf(const Configuration& before, const Configuration& after)
{
    return {
        .number = 7, .rows = 1, .changes = schema::toText(recordedChanges(difference(before, after), before, after))};
}

Configuration configurationOf(std::initializer_list<Row> rows)
{
    Configuration configuration;
    for (const Row& row : rows)
        configuration.add(row);
    return configuration;
}

TEST(RecordedChangeTest, IsTheSameAfterTheWayThroughItsText)
{
    const Configuration before = configurationOf({rule(1, 10), rule(2, 20)});
    Configuration after = configurationOf({rule(2, 25), rule(3, 30)});
    after.acknowledged[{TableId::Rules, 3, "so \"what\"\n"}];
    after.add(Row(schema::table(TableId::Global)));
    const auto changes = recordedChanges(difference(before, after), before, after);
    ASSERT_EQ(changes.size(), 5U);
    EXPECT_EQ(schema::parseRecordedChanges(schema::toText(changes)), changes);
}

TEST(RecordedChangeTest, LeavesOutWhatIsAtItsDefault)
{
    const Configuration before;
    const Configuration after = configurationOf({rule(1, 10)});
    EXPECT_EQ(entryOf(before, after).changes,
              R"([{"table":"MoatKeeperRuleset","after":{"Id":1,"RulePrio":10,"InInterface":"eth0","Target":"DROP"}}])");
}

TEST(RecordedChangeTest, GivesTheRowsThatWereThere)
{
    const ovsdb::Table& table = schema::serverDatabase().at("MoatKeeperRuleset");
    const auto rowsOf = [&](const Configuration& configuration) {
        std::vector<ovsdb::Row> rows;
        for (const Row& row : configuration.rows(TableId::Rules))
            rows.push_back({{}, ovsdb::RowValues(row.values)});
        return rows;
    };
    const Configuration before = configurationOf({rule(1, 10), rule(2, 20), rule(4, 40)});
    const Configuration after = configurationOf({rule(2, 25), rule(3, 30), rule(4, 40)});
    const auto changes = recordedChanges(difference(before, after), before, after);
    EXPECT_EQ(schema::rowsBack(changes, table, rowsOf(after)), rowsOf(before));
    // Whatever has become of them since.
    EXPECT_EQ(schema::rowsBack(changes, table, rowsOf(configurationOf({rule(3, 31), rule(4, 40)}))), rowsOf(before));
    EXPECT_EQ(schema::rowsBack(changes, schema::serverDatabase().at("MoatKeeperInputPolicy"), {}),
              std::vector<ovsdb::Row>());
}

TEST(RecordedChangeTest, RefusesWhatIsNoListOfRows)
{
    for (const char* text :
         {"", "{}", "[1]", R"([{"table":"other","before":{}}])", R"([{"table":"MoatKeeperRuleset"}])",
          R"([{"table":"MoatKeeperUsedIds","before":{}}])", R"([{"table":"MoatKeeperRuleset","before":[]}])",
          R"([{"table":"MoatKeeperRuleset","before":{"What":1}}])",
          R"([{"table":"MoatKeeperRuleset","before":{"Id":"1"}}])",
          R"([{"table":"MoatKeeperRuleset","before":{"Id":3000000000}}])"})
        EXPECT_THROW(schema::parseRecordedChanges(text), ovsdb::Error) << text;
}

TEST(RecordedChangeTest, TheWayBackNamesEachRowByItsKey)
{
    const Configuration before = configurationOf({rule(1, 10)});
    Configuration after = configurationOf({rule(2, 20), Row(schema::table(TableId::Global))});
    after.acknowledged[{TableId::Rules, 2, "w"}];
    std::string text;
    for (const ovsdb::Json& operation :
         schema::operationsBack(recordedChanges(difference(before, after), before, after)))
        text += ovsdb::toText(operation) + '\n';
    EXPECT_EQ(text, R"({"op":"delete","table":"MoatKeeper","where":[]}
{"op":"delete","table":"MoatKeeperRuleset","where":[["Id","==",1]]}
{"op":"insert","table":"MoatKeeperRuleset","row":{"Id":1,"RulePrio":10,"InInterface":"eth0","Target":"DROP"}}
{"op":"delete","table":"MoatKeeperRuleset","where":[["Id","==",2]]}
{"op":"delete","table":"MoatKeeperAcknowledged","where":[["Table","==","MoatKeeperRuleset"],["Row","==",2],["Warning","==","w"]]}
)");
}

TEST(HistoryTest, WhatWasUndoneIsPassedOver)
{
    const auto next = [](std::vector<HistoryEntry> newestFirst) {
        const HistoryEntry* entry = nextToUndo(newestFirst);
        return entry != nullptr ? entry->number : 0;
    };
    const auto change = [](std::int32_t number, std::int32_t undoes = 0) {
        return HistoryEntry{.number = number, .undoes = undoes};
    };
    EXPECT_EQ(next({}), 0);
    EXPECT_EQ(next({change(2), change(1)}), 2);
    EXPECT_EQ(next({change(3, 2), change(2), change(1)}), 1);
    EXPECT_EQ(next({change(4, 1), change(3, 2), change(2), change(1)}), 0);
    EXPECT_EQ(next({change(4, 3), change(3, 2), change(2), change(1)}), 2) << "it is in again";
    EXPECT_EQ(next({change(5), change(4, 2), change(2), change(1)}), 5);
}

TEST(HistoryTest, AChangeIsTakenBack)
{
    Configuration before = configurationOf({rule(1, 10), rule(2, 20)});
    before.acknowledged[{TableId::Rules, 1, "w"}];
    const Configuration after = configurationOf({rule(2, 25), rule(3, 30)});
    Editor editor(after);
    takeBack(entryOf(before, after), editor);
    EXPECT_EQ(editor.configuration, before);
    EXPECT_EQ(editor.configuration.acknowledged.size(), 1U);
}

TEST(HistoryTest, AChangeOfRowsThatHaveChangedSinceIsNotTakenBack)
{
    const Configuration before = configurationOf({rule(1, 10), rule(2, 20)});
    const Configuration after = configurationOf({rule(2, 25), rule(3, 30)});
    const auto refused = [&](Configuration now) {
        Editor editor(now);
        try {
            takeBack(entryOf(before, after), editor);
        } catch (const Failure& failure) {
            return std::string(failure.what());
        }
        return std::string();
    };
    EXPECT_THAT(refused(configurationOf({rule(1, 1), rule(2, 25), rule(3, 30)})), HasSubstr("MoatKeeperRuleset Id 1"));
    EXPECT_THAT(refused(configurationOf({rule(2, 20), rule(3, 30)})), HasSubstr("MoatKeeperRuleset Id 2"));
    EXPECT_THAT(refused(configurationOf({rule(3, 30)})), HasSubstr("MoatKeeperRuleset Id 2"));
    EXPECT_THAT(refused(configurationOf({rule(2, 25)})), HasSubstr("MoatKeeperRuleset Id 3"));
    EXPECT_EQ(refused(configurationOf({rule(2, 25), rule(3, 30), rule(4, 4)})), "") << "another row does not matter";
}

TEST(HistoryTest, AChangeWhoseRowsWereNotKeptIsNotTakenBack)
{
    Configuration now;
    Editor editor(now);
    EXPECT_THROW(takeBack({.number = 1, .rows = 100'000}, editor), Failure);
}

} // namespace

} // namespace moatctl
