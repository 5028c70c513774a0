// What a device tells the history of, and what it leaves to others.
#include "platform_linux/history_watch.hpp"

#include "ovsdb/table_update.hpp"
#include "schema/history.hpp"
#include "schema/server/database.hpp"
#include "schema/server/row_sum.hpp"
#include "schema/trial.hpp"
#include "tests/unit/captured_descriptor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

namespace
{

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using zol::cfg::HistoryWatch;

const std::string rules = "MoatKeeperRuleset";
const std::string history(schema::historyTable);
const std::string trials(schema::trialTable);

std::string uuid(int number)
{
    return "aaaaaaaa-0000-0000-0000-00000000000" + std::to_string(number);
}

class HistoryWatchTest : public testing::Test
{
protected:
    struct Sent {
        std::string text;
        std::function<void(const ovsdb::Json&, const std::optional<std::string>&)> answered;
    };
    struct RowChange {
        std::string table;
        std::string uuid;
        std::string json;
    };

    HistoryWatchTest()
        : m_watch(
              "here", m_tables, m_dispatcher, m_logModule,
              [this](const std::vector<ovsdb::Json>& operations, auto answered) {
                  m_sent.push_back({ovsdb::toText(ovsdb::Json(operations)), std::move(answered)});
              },
              [] { return std::chrono::sys_days(std::chrono::January / 31 / 2026); })
    {
    }

    void message(const std::vector<RowChange>& changes, bool connected = false)
    {
        ovsdb::TableUpdate update(m_tables, ovsdb::UpdateFormat::Difference);
        for (const RowChange& change : changes)
            update.add(change.table, change.uuid, ovsdb::parseJson(change.json));
        m_tables.apply(update, [this](const ovsdb::Table& table, const ovsdb::Row* before, const ovsdb::Row* after) {
            m_watch.rowChanges(table, before, after);
        });
        m_watch.update(connected, true);
    }

    static RowChange newRule(int id)
    {
        return {rules, uuid(id),
                R"({"insert":{"Id":)" + std::to_string(id) + R"(,"RulePrio":10,"InInterface":"p1","Target":"DROP"}})"};
    }
    // As of whoever tells of all changes up to now and of these.
    RowChange entry(int number, std::uint64_t sum)
    {
        return {history, uuid(number),
                R"({"insert":{"Number":)" + std::to_string(number) + R"(,"Sum":")" + schema::sumText(sum) + R"("}})"};
    }
    // The sum with the rule.
    std::uint64_t with(int id)
    {
        ovsdb::TableCache other = m_tables;
        const RowChange change = newRule(id);
        ovsdb::TableUpdate update(other, ovsdb::UpdateFormat::Difference);
        update.add(change.table, change.uuid, ovsdb::parseJson(change.json));
        other.apply(update);
        return schema::sumOf(other);
    }

    void run(std::chrono::milliseconds time)
    {
        bool over = false;
        m_dispatcher.startTimer(time, [&over] { over = true; });
        while (!over)
            m_dispatcher.handleEvents();
    }

    CapturedDescriptor m_log{STDERR_FILENO};
    ZOL_Sysloglevel_Module m_logModule = ZOL_Sysloglevel_registerModul("test");
    tessera::net::EventDispatcher::State m_dispatcher;
    ovsdb::TableCache m_tables{schema::serverDatabaseWithDevices(), {rules, history, trials}};
    std::vector<Sent> m_sent;
    HistoryWatch m_watch;
};

TEST_F(HistoryWatchTest, TellsOfAChangeThatNobodyElseTellsOf)
{
    message({newRule(1)}, true);
    message({newRule(2)});
    run(50ms);
    ASSERT_THAT(m_sent, SizeIs(1));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"({"op":"wait","table":"MoatKeeperTrial")"));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"("Number":1,)"));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"("User":"another client")"));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"(\"after\":{\"Id\":2,)"));
    EXPECT_THAT(m_sent[0].text, Not(HasSubstr(R"(\"Id\":1,)"))) << "it was there before";
    EXPECT_THAT(m_sent[0].text, HasSubstr(schema::sumText(schema::sumOf(m_tables))));
}

TEST_F(HistoryWatchTest, SaysNothingOfWhatWhoeverChangedItTells)
{
    message({newRule(1)}, true);
    message({newRule(2), entry(1, with(2))});
    message({newRule(3), entry(2, with(3))});
    run(1200ms);
    EXPECT_THAT(m_sent, IsEmpty());
}

TEST_F(HistoryWatchTest, WhatAnotherDeviceHasToldIsTold)
{
    message({newRule(1)}, true);
    message({newRule(2)});
    const std::uint64_t first = schema::sumOf(m_tables);
    message({newRule(3)});
    run(50ms);
    ASSERT_THAT(m_sent, SizeIs(1));
    message({entry(1, first)}); // of the first change only
    m_sent[0].answered({}, "constraint violation: two rows have identical values");
    run(1200ms);
    ASSERT_THAT(m_sent, SizeIs(2));
    EXPECT_THAT(m_sent[1].text, HasSubstr(R"("Number":2,)"));
    EXPECT_THAT(m_sent[1].text, HasSubstr(R"(\"Id\":3,)"));
    EXPECT_THAT(m_sent[1].text, Not(HasSubstr(R"(\"Id\":2,)")));
    message({entry(2, schema::sumOf(m_tables))});
    m_sent[1].answered({}, std::nullopt);
    run(1200ms);
    EXPECT_THAT(m_sent, SizeIs(2));
    EXPECT_THAT(m_log.text(), IsEmpty());
}

TEST_F(HistoryWatchTest, AsksWhatEntriesSayThatCameWithOtherRows)
{
    message({newRule(1)}, true);
    message({newRule(2), newRule(3), entry(1, with(2))});
    run(50ms);
    ASSERT_THAT(m_sent, SizeIs(1));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"([{"op":"select","table":"MoatKeeperHistory")"));
    m_sent[0].answered(
        ovsdb::parseJson(R"({"rows":[{"Changes":"[{\"table\":\"MoatKeeperRuleset\",\"after\":)"
                         R"({\"Id\":2,\"RulePrio\":10,\"InInterface\":\"p1\",\"Target\":\"DROP\"}}]"}]})"),
        std::nullopt);
    run(50ms);
    ASSERT_THAT(m_sent, SizeIs(2));
    EXPECT_THAT(m_sent[1].text, HasSubstr(R"(\"Id\":3,)"));
    EXPECT_THAT(m_sent[1].text, Not(HasSubstr(R"(\"Id\":2,)")));
}

TEST_F(HistoryWatchTest, WaitsWhileAChangeIsOnTrial)
{
    message({{trials, uuid(9), R"({"insert":{"Change":1}})"}}, true);
    message({newRule(2)});
    run(50ms);
    EXPECT_THAT(m_sent, IsEmpty());
    message({{trials, uuid(9), R"({"delete":null})"}});
    run(50ms);
    EXPECT_THAT(m_sent, SizeIs(1));
}

TEST_F(HistoryWatchTest, WhatNobodySawHasNoRows)
{
    message({newRule(1), entry(1, 4711)}, true);
    run(1200ms);
    ASSERT_THAT(m_sent, SizeIs(1));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"("Rows":0,"Changes":"")"));
}

TEST_F(HistoryWatchTest, WhatTheServerRefusesIsToldOnceAndTriedAgain)
{
    message({newRule(1)}, true);
    message({newRule(2)});
    run(50ms);
    for (std::size_t i = 0; i < 2; ++i) {
        ASSERT_THAT(m_sent, SizeIs(i + 1));
        m_sent[i].answered({}, "not allowed: by nobody");
        run(1200ms);
    }
    EXPECT_THAT(m_sent, SizeIs(3));
    const std::string log = m_log.text();
    EXPECT_THAT(log, HasSubstr("a change by another client is not in the history: not allowed: by nobody"));
    EXPECT_EQ(log.find("not allowed"), log.rfind("not allowed"));
}

TEST_F(HistoryWatchTest, WhatIsForbiddenIsLeftToOthersUntilTheNextConnection)
{
    message({newRule(1)}, true);
    message({newRule(2)});
    run(50ms);
    ASSERT_THAT(m_sent, SizeIs(1));
    m_sent[0].answered({}, "permission error: RBAC rules for client \"here\" role \"device\" prohibit row insertion");
    message({newRule(3)});
    run(1200ms);
    EXPECT_THAT(m_sent, SizeIs(1));
    EXPECT_THAT(m_log.text(), HasSubstr("prohibit row insertion"));

    message({newRule(4)}, true);
    message({newRule(5)});
    run(1200ms);
    EXPECT_THAT(m_sent, SizeIs(2)) << "the role may be another one now";
}

TEST(RowSumTest, IsOfTheRowsWhateverTheirOrder)
{
    const ovsdb::Table& table = schema::serverDatabase().at(rules);
    std::vector<tessera::Value> values;
    for (const ovsdb::Column& column : table.columns)
        values.push_back(column.ifUnset);
    std::vector<tessera::Value> other = values;
    other[*table.find("InInterface")] = tessera::Value(std::string("p1"));
    EXPECT_NE(schema::sumOf(table, values), schema::sumOf(table, other));
    const std::vector<schema::RecordedChange> there{{&table, values, other}};
    const std::vector<schema::RecordedChange> back{{&table, other, values}};
    EXPECT_EQ(schema::sumOf(there) + schema::sumOf(back), 0U);
    EXPECT_EQ(schema::sumOf(schema::serverDatabase().at(schema::usedIdsTable), ovsdb::RowValues()), 0U);
}

TEST(RowSumTest, AsText)
{
    for (const std::uint64_t sum : {std::uint64_t{0}, std::uint64_t{0x0123456789abcdef}, ~std::uint64_t{0}})
        EXPECT_EQ(schema::parseSum(schema::sumText(sum)), sum);
    for (const char* text : {"", "0", "0123456789abcdeg", "0123456789abcdef0", "-123456789abcdef"})
        EXPECT_FALSE(schema::parseSum(text)) << text;
}

} // namespace
