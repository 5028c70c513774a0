// The rows that the handler's readers get, and what the log says of the others.
#include "platform_linux/delivered_rows.hpp"

#include "ovsdb/table_update.hpp"
#include "schema/server/database.hpp"
#include "tests/unit/captured_descriptor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <unistd.h>

namespace
{

using ovsdb::TableCache;
using testing::HasSubstr;
using zol::cfg::DeliveredRows;

const std::string policies = "MoatKeeperInputPolicy";
const std::string globals = "MoatKeeper";

class DeliveredRowsTest : public testing::Test
{
protected:
    // Rows are told apart by a number; `change` is {"insert": ...} or the like.
    void change(int row, const std::string& text, const std::string& table = policies)
    {
        ovsdb::TableUpdate update(m_tables, ovsdb::UpdateFormat::Difference);
        update.add(table, "aaaaaaaa-0000-0000-0000-00000000000" + std::to_string(row), ovsdb::parseJson(text));
        m_source.update(m_tables.apply(update));
    }
    void insert(int row, const std::string& interface)
    {
        change(row, R"({"insert": {"Id": )" + std::to_string(row) + R"(, "Interface": ")" + interface +
                        R"(", "Policy": "DROP"}})");
    }
    std::uint32_t count(const std::string& table = policies)
    {
        std::uint32_t rows = 99;
        EXPECT_TRUE(m_source.getRowCount(table, rows).ok);
        return rows;
    }
    int idOf(std::uint32_t index)
    {
        tessera::NameList names;
        tessera::ValueList values;
        EXPECT_TRUE(m_source.readRow(policies, index, names, values).ok);
        return values.getValue("Id").getInteger();
    }
    auto linesLogged() const { return std::ranges::count(m_log.text(), '\n'); }

    CapturedDescriptor m_log{STDERR_FILENO};
    TableCache m_tables{schema::serverDatabase(), {globals, policies}};
    DeliveredRows m_source{m_tables, {globals, policies}, ZOL_Sysloglevel_registerModul("test")};
};

TEST_F(DeliveredRowsTest, ARowWithATextThatIsNoOperandIsLeftOut)
{
    insert(1, "eth0");
    insert(2, "eth0 -p ARP;\\tx");
    insert(3, "eth1");
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(idOf(0), 1);
    EXPECT_EQ(idOf(1), 3);
    EXPECT_THAT(m_log.text(), HasSubstr("config:10: MoatKeeperInputPolicy Id 2 is left out: column Interface, "
                                        "\"eth0 -p ARP;\\x09x\": expected an interface name of at most 15 characters, "
                                        "as a single word\n"));
    tessera::NameList names;
    tessera::ValueList values;
    EXPECT_FALSE(m_source.readRow(policies, 2, names, values).ok);
    std::uint32_t rows = 7;
    EXPECT_FALSE(m_source.getRowCount("Elsewhere", rows).ok);
    EXPECT_EQ(rows, 7U);
}

TEST_F(DeliveredRowsTest, ItIsToldOnceAndAgainWhenTheValueIsAnother)
{
    insert(1, "a b");
    EXPECT_EQ(linesLogged(), 1);
    insert(2, "eth0"); // another row of the table
    change(1, R"({"modify": {"EnableLogging": 1}})");
    EXPECT_EQ(linesLogged(), 1);
    change(1, R"({"modify": {"Interface": "a c"}})");
    EXPECT_EQ(linesLogged(), 2);
    change(1, R"({"modify": {"Interface": "eth1"}})");
    EXPECT_EQ(linesLogged(), 2);
    EXPECT_EQ(count(), 2U);
    change(1, R"({"modify": {"Interface": "a c"}})");
    EXPECT_EQ(linesLogged(), 3);
    EXPECT_EQ(count(), 1U);
    // Different only where the line is cut.
    change(1, R"({"modify": {"Interface": ")" + std::string(500, 'x') + R"("}})");
    change(1, R"({"modify": {"Interface": ")" + std::string(499, 'x') + R"(y"}})");
    EXPECT_EQ(linesLogged(), 5);
    EXPECT_LT(m_log.text().size(), 5 * 300U);
}

TEST_F(DeliveredRowsTest, TheTableWithoutIdsHasNone)
{
    change(1, R"({"insert": {"GlobalInputPolicy": "DROP; x"}})", globals);
    EXPECT_EQ(count(globals), 0U);
    EXPECT_THAT(m_log.text(), HasSubstr("config:10: MoatKeeper is left out: column GlobalInputPolicy, \"DROP; x\": "));
}

TEST_F(DeliveredRowsTest, OtherSpellingsAreTheRecordsBusiness)
{
    insert(1, "eth+");
    change(1, R"({"modify": {"Policy": "reject"}})");
    insert(2, "! eth0");
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(m_log.text(), "");
}

TEST_F(DeliveredRowsTest, OtherRowsCanStandInTheirPlaces)
{
    insert(1, "eth0");
    insert(2, "eth1");
    DeliveredRows::Rows instead;
    instead[policies].push_back(m_tables.rows(policies)[1]);
    m_source.deliverInstead(std::move(instead));
    m_source.update({policies});
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(idOf(0), 2);
    insert(3, "eth2"); // of no account yet
    EXPECT_EQ(count(), 1U);
    m_source.deliverInstead({});
    m_source.update({policies});
    EXPECT_EQ(count(), 3U);
}

} // namespace
