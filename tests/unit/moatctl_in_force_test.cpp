#include "moatctl/check/rows_not_in_force.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace
{

using namespace moatctl;
using testing::ElementsAre;
using testing::IsEmpty;

Row rule(std::int32_t id, const std::string& mac)
{
    Row row(schema::table(TableId::Rules));
    row.set("Id", id);
    row.set("Enabled", 1);
    row.set("RulePrio", id);
    row.set("InInterface", std::string("p1"));
    row.set("SrcMAC", mac);
    row.set("Target", std::string("DROP"));
    return row;
}

Row filter(std::int32_t id, const std::string& criteria)
{
    Row row(schema::table(TableId::Filters));
    row.set("Id", id);
    row.set("Enabled", 1);
    row.set("Prio", 10);
    row.set("InInterface", std::string("p1"));
    row.set("OutInterface", std::string("p2"));
    row.set("MatchCriteria", criteria);
    row.set("Mode", std::string("blacklist"));
    return row;
}

Row entry(std::int32_t id, std::int32_t filterId)
{
    Row row(schema::table(TableId::FilterRules));
    row.set("Id", id);
    row.set("Enabled", 1);
    row.set("BridgeFilterID", filterId);
    row.set("FilterMatch", std::string("02:00:00:00:00:01"));
    return row;
}

std::string lineOf(const std::string& mac)
{
    return "ebtables -A UserInputRules -i p1 -s " + mac + " -j DROP";
}

std::vector<std::string> texts(const std::vector<RowNotInForce>& rows)
{
    std::vector<std::string> found;
    for (const RowNotInForce& row : rows)
        found.push_back(toText(row));
    return found;
}

Configuration configuration(const std::vector<Row>& rows)
{
    Configuration made;
    for (const Row& row : rows)
        made.add(row);
    return made;
}

TEST(RowsNotInForce, ALineIsOfTheRowsThatGiveIt)
{
    const Configuration rows = configuration({rule(1, "a"), rule(2, "b"), rule(3, "a")});
    EXPECT_THAT(texts(rowsNotInForce(rows, {})), IsEmpty());
    const auto found = rowsNotInForce(rows, {{lineOf("a"), "why"}});
    EXPECT_THAT(texts(found), ElementsAre("MoatKeeperRuleset Id 1: " + lineOf("a") + ": why",
                                          "MoatKeeperRuleset Id 3: " + lineOf("a") + ": why"));
    EXPECT_EQ(countRows(found), 2U);
}

TEST(RowsNotInForce, ALineOfNoRow)
{
    const auto found = rowsNotInForce(configuration({rule(1, "a")}), {{"ebtables -N UserInputRules", "why"}});
    EXPECT_THAT(texts(found), ElementsAre("ebtables -N UserInputRules: why"));
    EXPECT_THAT(texts(rowsNotInForce({}, {{"ebtables -P INPUT ", "why"}})),
                ElementsAre("MoatKeeper: ebtables -P INPUT : why"));
}

TEST(RowsNotInForce, RowsThatGiveNoLine)
{
    EXPECT_THAT(
        texts(rowsNotInForce(configuration({entry(5, 9), rule(1, "a"), rule(2, "a;b")}), {})),
        ElementsAre("MoatKeeperRuleset Id 2, SrcMAC: \"a;b\": expected " +
                        std::string(schema::expectedValue(schema::ValueKind::Mac)) + ", as a single word",
                    "MoatKeeperBridgeFilterRules Id 5, BridgeFilterID: 9: there is no such filter; expected the "
                    "Id of a filter"));
}

TEST(RowsNotInForce, WhatIsDisabledIsAsItIsMeantToBe)
{
    Row off = rule(1, "a;b");
    off.set("Enabled", 0);
    Row closed = filter(7, "MAC");
    closed.set("Enabled", 0);
    EXPECT_THAT(texts(rowsNotInForce(configuration({off, closed, entry(5, 7)}), {})), IsEmpty());
}

class OfChange : public testing::Test
{
protected:
    // Rule 1 is changed, rule 2 is not; both are not in force afterwards.
    std::vector<std::string> rows(const Stored& stored) const
    {
        const Configuration after = configuration({rule(1, "a"), rule(2, "b")});
        return texts(ofChange(rowsNotInForce(after, {{lineOf("a"), "x"}, {lineOf("b"), "x"}}), stored, "gate"));
    }

    static Stored stored(std::int32_t numberThere, const std::string& notInForce, std::size_t count)
    {
        Stored made;
        made.rows = {{TableId::Rules, 1}};
        made.before = configuration({rule(1, "c"), rule(2, "b")});
        made.numberBefore = 5;
        Device device;
        device.name = "gate";
        device.number = numberThere;
        device.inStep = true;
        device.notInForce = notInForce;
        device.notInForceCount = count;
        device.started = "then";
        made.devicesBefore = {device};
        return made;
    }

    const std::string m_changed = "MoatKeeperRuleset Id 1: " + lineOf("a") + ": x";
    const std::string m_other = "MoatKeeperRuleset Id 2: " + lineOf("b") + ": x";
};

TEST_F(OfChange, RowsThatWereInForceBeforeAreNamedToo)
{
    EXPECT_THAT(rows(stored(5, "", 0)), ElementsAre(m_changed, m_other));
    EXPECT_THAT(rows(stored(5, lineOf("b") + "\tx\n", 1)), ElementsAre(m_changed)) << "it was not";
}

TEST_F(OfChange, WhatWasBeforeMayBeUnknown)
{
    EXPECT_THAT(rows(stored(4, "", 0)), ElementsAre(m_changed)) << "the device was at work";
    EXPECT_THAT(rows(stored(5, lineOf("c") + "\tx\n", 1'500)), ElementsAre(m_changed)) << "not all lines are named";
    Stored first = stored(5, "", 0);
    first.numberBefore.reset();
    EXPECT_THAT(rows(first), ElementsAre(m_changed));
}

TEST(Devices, AChangeIsReachedByADeviceThatReports)
{
    Device device;
    device.number = 7;
    EXPECT_FALSE(device.hasReached(7)) << "its daemon was stopped";
    device.started = "then";
    EXPECT_TRUE(device.hasReached(7));
    EXPECT_TRUE(device.hasReached(6));
    EXPECT_FALSE(device.hasReached(8));
}

TEST(Devices, LinesAreSplitWithCare)
{
    const auto lines = [](const std::string& text) {
        Device device;
        device.notInForce = text;
        std::string all;
        for (const DeviceLine& line : device.lines())
            all += "[" + line.line + "|" + line.reason + "]";
        return all;
    };
    EXPECT_EQ(lines(""), "");
    EXPECT_EQ(lines("a\tb\nc\td\n"), "[a|b][c|d]");
    EXPECT_EQ(lines("a\tb\tc"), "[a|b\tc]");
    EXPECT_EQ(lines("\n\t\na"), "[|][|][a|]");
}

} // namespace
