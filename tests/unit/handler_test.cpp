// What the data files in tests/golden cannot say: failing platforms, several queues, the list of tables.
#include "handler/moatkeeper.hpp"

#include "platform_fake/captured_log.hpp"
#include "platform_fake/memory_tables.hpp"
#include "platform_fake/recording_queue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class Handler : public testing::Test
{
protected:
    Handler()
    {
        tables.setRows("MoatKeeper",
                       {fake::Row().set("GlobalInputPolicy", "ACCEPT").set("GlobalForwardingPolicy", "DROP")});
        tables.setRows("MoatKeeperRuleset", {fake::Row()
                                                 .set("Id", 1)
                                                 .set("Enabled", 1)
                                                 .set("RulePrio", 1)
                                                 .set("InInterface", "eth0")
                                                 .set("VLANID", -1)
                                                 .set("Target", "DROP")});
        tables.setRows("MoatKeeperInputPolicy",
                       {fake::Row().set("Id", 1).set("Enabled", 1).set("Interface", "eth0").set("Policy", "DROP")});
        tables.setRows("MoatKeeperForwardingPolicy", {fake::Row()
                                                          .set("Id", 1)
                                                          .set("Enabled", 1)
                                                          .set("InInterface", "a")
                                                          .set("OutInterface", "b")
                                                          .set("Policy", "DROP")});
        tables.setRows("MoatKeeperBridgeFilters", {fake::Row()
                                                       .set("Id", 1)
                                                       .set("Enabled", 1)
                                                       .set("Prio", 1)
                                                       .set("InInterface", "a")
                                                       .set("OutInterface", "b")
                                                       .set("MatchCriteria", "mac")
                                                       .set("Mode", "blacklist")});
        tables.setRows("MoatKeeperBridgeFilterRules",
                       {fake::Row().set("Id", 1).set("Enabled", 1).set("BridgeFilterID", 1).set("FilterMatch", "m")});
    }

    void commit() { handler->commitToSystem(tables, &queue); }

    fake::MemoryTables tables;
    fake::RecordingQueue queue;
    std::unique_ptr<zol::moatkeeper::moatkeeper> handler = std::make_unique<zol::moatkeeper::moatkeeper>();
};

} // namespace

TEST_F(Handler, AppendsItsSixTablesInTheirOrder)
{
    fake::capturedLog().takeLines();
    std::list<std::string> names = {"held"};
    handler->getTableNames(names);
    EXPECT_THAT(names, ElementsAre("held", "MoatKeeper", "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy",
                                   "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"));
    const auto lines = fake::capturedLog().takeLines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].level, fake::LogLevel::trace);
    EXPECT_EQ(lines[0].label, "moatkeeper");
    EXPECT_EQ(lines[0].line, 107);
    EXPECT_EQ(lines[0].text, "getTableNames");
}

TEST_F(Handler, ReadsTheTablesInItsOwnOrder)
{
    std::vector<std::string> asked;
    tables.onGetRowCount = [&](const std::string& table) {
        asked.push_back(table);
        return zol::cfg::ConfigStatus();
    };
    EXPECT_TRUE(handler->loadFromConfig(tables, ""));
    EXPECT_THAT(asked,
                ElementsAre("MoatKeeper", "MoatKeeperRuleset", "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy",
                            "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"));
}

TEST_F(Handler, TheEmptyNameTellsOfAChangeInEachTable)
{
    handler->loadFromConfig(tables, "");
    EXPECT_FALSE(handler->loadFromConfig(tables, ""));
    const std::vector<std::pair<const char*, const char*>> changes = {
        {"MoatKeeper", "GlobalInputPolicy"},         {"MoatKeeperRuleset", "SrcMAC"},
        {"MoatKeeperInputPolicy", "Interface"},      {"MoatKeeperForwardingPolicy", "InInterface"},
        {"MoatKeeperBridgeFilters", "OutInterface"}, {"MoatKeeperBridgeFilterRules", "FilterMatch"}};
    for (const auto& [table, column] : changes) {
        fake::Row row = tables.rows(table)->front();
        tables.setRows(table, {row.set(column, "another")});
        EXPECT_TRUE(handler->loadFromConfig(tables, "")) << table;
        EXPECT_FALSE(handler->loadFromConfig(tables, "")) << table;
    }
}

TEST_F(Handler, ReadsOnlyTheFirstRowOfTheMainTable)
{
    tables.addRow("MoatKeeper", fake::Row());
    std::vector<std::uint32_t> rows;
    tables.onReadRow = [&](const std::string&, std::uint32_t row) {
        rows.push_back(row);
        return zol::cfg::ConfigStatus();
    };
    handler->loadFromConfig(tables, "MoatKeeper");
    EXPECT_THAT(rows, ElementsAre(0U));
}

TEST_F(Handler, KeepsToTheQueueOfTheFirstCommit)
{
    commit();
    queue.takeCalls();
    handler->loadFromConfig(tables, "");
    fake::RecordingQueue other;
    handler->commitToSystem(tables, &other);
    EXPECT_THAT(other.calls(), IsEmpty());
    EXPECT_THAT(queue.takeCalls(), Not(IsEmpty()));
    handler.reset();
    EXPECT_THAT(other.calls(), IsEmpty());
    EXPECT_THAT(queue.lines(), Contains("ebtables -X UserInputRules"));
}

TEST_F(Handler, LeavesTheQueueAloneWhenItGoesBeforeAnyCommit)
{
    handler->loadFromConfig(tables, "");
    fake::capturedLog().takeLines();
    handler.reset();
    const auto lines = fake::capturedLog().takeLines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(lines[0].text, "~moatkeeper");
    EXPECT_EQ(lines[0].line, 101);
}

TEST_F(Handler, ResultsOfTheQueueDoNotMatter)
{
    handler->loadFromConfig(tables, "");
    commit();
    const auto good = queue.takeCalls();
    handler = std::make_unique<zol::moatkeeper::moatkeeper>();
    queue.takeCalls();
    queue.processResult = -1;
    handler->loadFromConfig(tables, "");
    commit();
    EXPECT_EQ(queue.takeCalls(), good);
}

TEST_F(Handler, AnExceptionOfTheSourcePassesAndLaterReadsWork)
{
    tables.onReadRow = [](const std::string& table, std::uint32_t) -> zol::cfg::ConfigStatus {
        if (table == "MoatKeeperInputPolicy")
            throw std::runtime_error("no row");
        return {};
    };
    EXPECT_THROW(handler->loadFromConfig(tables, ""), std::runtime_error);
    tables.onReadRow = nullptr;
    handler->loadFromConfig(tables, "");
    commit();
    EXPECT_THAT(queue.lines(), Contains("ebtables -A UserInputPolicy -i eth0 -j DROP"));
}

// The row's values are cleared before each read: nothing of the row before is taken for one that cannot be read.
TEST_F(Handler, RowsThatCannotBeReadHaveNoValues)
{
    const std::vector<std::pair<const char*, const char*>> linesOfOneRow = {
        {"MoatKeeperRuleset", "ebtables -A UserInputRules "},
        {"MoatKeeperInputPolicy", "ebtables -A UserInputPolicy "},
        {"MoatKeeperForwardingPolicy", "ebtables -A UserForwardPolicy "},
        {"MoatKeeperBridgeFilters", "ebtables -N 1bamacblacklist"},
        {"MoatKeeperBridgeFilterRules", "ebtables -A 1bamacblacklist "}};
    for (const auto& [table, start] : linesOfOneRow)
        tables.addRow(table, fake::Row().set("Id", 2));
    tables.onReadRow = [](const std::string&, std::uint32_t row) { return zol::cfg::ConfigStatus{row == 0, "lost"}; };
    handler->loadFromConfig(tables, "");
    commit();
    const auto lines = queue.lines();
    for (const auto& row : linesOfOneRow) {
        const auto isOfRow = [&](const std::string& line) { return line.starts_with(row.second); };
        EXPECT_EQ(std::ranges::count_if(lines, isOfRow), 1) << row.first;
    }
}

TEST_F(Handler, StatusesDoNotMatterButACountThatIsNotGivenIsNone)
{
    tables.onGetRowCount = [](const std::string&) { return zol::cfg::ConfigStatus{false, "no"}; };
    EXPECT_FALSE(handler->loadFromConfig(tables, ""));
}

// The queue fails at the first line of a group: that group and those behind it are applied by the next commit, the
// ones before it are not applied again.
class FailingGroup : public Handler, public testing::WithParamInterface<const char*>
{
};

TEST_P(FailingGroup, IsAppliedAgainWithAllBehindIt)
{
    handler->loadFromConfig(tables, "");
    queue.onAddCommand = [](const std::string& line) {
        if (line.starts_with(GetParam()))
            throw std::runtime_error("queue full");
    };
    EXPECT_THROW(commit(), std::runtime_error);
    queue.onAddCommand = nullptr;
    queue.takeCalls();
    commit();
    const std::vector<std::string> lines = queue.lines();
    // Where each group begins, in the order of the commit.
    const std::vector<std::string> groups = {"ebtables -N 1bamac", "ebtables -F UserInputRules", "ebtables -P INPUT",
                                             "ebtables -F UserInputPolicy", "ebtables -F UserForwardPolicy"};
    bool due = false;
    for (const std::string& group : groups) {
        due = due || group == GetParam();
        const bool applied =
            std::any_of(lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(group); });
        EXPECT_EQ(applied, due) << group;
    }
    queue.takeCalls();
    commit();
    EXPECT_THAT(queue.calls(), IsEmpty());
}

// After the chain that the line is about.
std::string nameOfGroup(const testing::TestParamInfo<const char*>& group)
{
    const std::string line = group.param;
    return line.substr(line.rfind(' ') + 1);
}

INSTANTIATE_TEST_SUITE_P(Groups, FailingGroup,
                         testing::Values("ebtables -N 1bamac", "ebtables -F UserInputRules", "ebtables -P INPUT",
                                         "ebtables -F UserInputPolicy", "ebtables -F UserForwardPolicy"),
                         nameOfGroup);

TEST_F(Handler, AFailingInitIsNotRepeated)
{
    queue.onProcess = [] { throw std::runtime_error("queue full"); };
    EXPECT_THROW(commit(), std::runtime_error);
    queue.onProcess = nullptr;
    queue.takeCalls();
    commit();
    EXPECT_THAT(queue.lines(), Not(Contains("ebtables -N UserInputRules")));
    EXPECT_THAT(queue.lines(), Contains("ebtables -F UserInputRules"));
}

TEST_F(Handler, AFailingCleanUpIsTheCallersToReport)
{
    const auto cleanUp = [&](const std::function<void()>& failure) {
        queue.onProcess = nullptr;
        zol::moatkeeper::moatkeeper failing;
        failing.commitToSystem(tables, &queue);
        queue.onProcess = failure;
    };
    EXPECT_THROW(cleanUp([] { throw std::runtime_error("queue full"); }), std::runtime_error);
    EXPECT_THROW(cleanUp([] { throw 5; }), int);
}

TEST_F(Handler, AFailingCleanUpIsLoggedWhileAnotherExceptionIsUnderWay)
{
    const auto fail = [&](const std::function<void()>& failure) {
        queue.onProcess = nullptr;
        zol::moatkeeper::moatkeeper failing;
        failing.commitToSystem(tables, &queue);
        queue.onProcess = failure;
        throw std::logic_error("under way");
    };
    EXPECT_THROW(fail([] { throw std::runtime_error("queue full"); }), std::logic_error);
    auto lines = fake::capturedLog().takeLines();
    EXPECT_EQ(lines.back().level, fake::LogLevel::error);
    EXPECT_EQ(lines.back().text, "~moatkeeper: queue full");
    EXPECT_THROW(fail([] { throw 5; }), std::logic_error);
    lines = fake::capturedLog().takeLines();
    EXPECT_EQ(lines.back().level, fake::LogLevel::error);
    EXPECT_EQ(lines.back().text, "~moatkeeper: unknown exception");
}
