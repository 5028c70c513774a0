#include "ebtables/table.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ebtables::Chain;
using ebtables::Counters;
using ebtables::parseSaved;
using ebtables::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

// The chains as "NAME POLICY: rule | rule".
std::vector<std::string> shown(const Table& table)
{
    std::vector<std::string> lines;
    for (const Chain& chain : table.chains) {
        std::string line = chain.name + ' ' + chain.policy + ':';
        for (const ebtables::TableRule& rule : chain.rules)
            line += (line.ends_with(':') ? " " : " | ") + rule.text;
        lines.push_back(line);
    }
    return lines;
}

TEST(TableTest, AKernelThatHasNoTableYetHasTheBuiltInChains)
{
    for (const char* output : {"", "\n\n", "# a remark\n"})
        EXPECT_THAT(shown(parseSaved(output)), ElementsAre("INPUT ACCEPT:", "FORWARD ACCEPT:", "OUTPUT ACCEPT:"));
}

TEST(TableTest, ChainsPoliciesAndRulesInTheirOrder)
{
    EXPECT_THAT(shown(parseSaved("*filter\n:INPUT DROP\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n:User RETURN\n"
                                 "-A INPUT -i eth0 -j User\n-A User -i eth1 -j DROP\n-A INPUT -j ACCEPT\n")),
                ElementsAre("INPUT DROP: -i eth0 -j User | -j ACCEPT",
                            "FORWARD ACCEPT:", "OUTPUT ACCEPT:", "User RETURN: -i eth1 -j DROP"));
}

TEST(TableTest, OtherTablesArePassedOver)
{
    EXPECT_THAT(shown(parseSaved("*nat\n:INPUT DROP\n-A INPUT -j DROP\n*filter\n-A INPUT -j ACCEPT\n*broute\n"
                                 "-A INPUT -j DROP\n")),
                ElementsAre("INPUT ACCEPT: -j ACCEPT", "FORWARD ACCEPT:", "OUTPUT ACCEPT:"));
}

TEST(TableTest, SpellingAndLineEndsDoNotMatter)
{
    EXPECT_THAT(shown(parseSaved("*filter\r\n:User  DROP [0:0] \r\n  -A User   -i eth0 -j DROP  \r\n-A New -j DROP")),
                ElementsAre("INPUT ACCEPT:", "FORWARD ACCEPT:", "OUTPUT ACCEPT:", "User DROP: -i eth0 -j DROP",
                            "New ACCEPT: -j DROP"));
}

TEST(TableTest, LinesOfOtherFormsArePassedOver)
{
    EXPECT_THAT(shown(parseSaved("*filter\n:NoPolicy\n-N User\nCOMMIT\n[1:2\n[x:2] -A INPUT -j DROP\n"
                                 "[1:y] -A INPUT -j DROP\n[1] -A INPUT -j DROP\n")),
                ElementsAre("INPUT ACCEPT:", "FORWARD ACCEPT:", "OUTPUT ACCEPT:"));
    const Table bare = parseSaved("*filter\n-A INPUT\n");
    ASSERT_THAT(bare.chains[0].rules, SizeIs(1)) << "a rule without options matches every frame";
    EXPECT_TRUE(bare.chains[0].rules[0].rule);
}

TEST(TableTest, CountersStandBeforeOrBehind)
{
    const Table table = parseSaved("*filter\n[3:200] -A INPUT -i eth0 -j DROP\n-A INPUT -i eth1 -j DROP -c 4 300\n"
                                   "-A INPUT -i eth2 -j DROP\n");
    ASSERT_THAT(table.chains[0].rules, SizeIs(3));
    EXPECT_EQ(table.chains[0].rules[0].counters, (Counters{3, 200}));
    EXPECT_EQ(table.chains[0].rules[1].counters, (Counters{4, 300}));
    EXPECT_EQ(table.chains[0].rules[1].text, "-i eth1 -j DROP");
    EXPECT_EQ(table.chains[0].rules[2].counters, std::nullopt);
    for (const char* other : {"-j DROP -c 4", "-j DROP -c x 4", "-j DROP -c 4 x", "-j DROP -c 4 5 6"}) {
        const Table odd = parseSaved(std::string("*filter\n-A INPUT ") + other + '\n');
        EXPECT_EQ(odd.chains[0].rules[0].text, other);
        EXPECT_EQ(odd.chains[0].rules[0].counters, std::nullopt) << other;
    }
}

TEST(TableTest, RulesWithPartsThatMoatkeeperDoesNotUseAreKeptAsText)
{
    const Table table = parseSaved("*filter\n-A INPUT --among-src 02:00:00:00:00:01, -j DROP\n-A INPUT -j DROP\n");
    EXPECT_FALSE(table.chains[0].rules[0].rule);
    EXPECT_EQ(table.chains[0].rules[0].text, "--among-src 02:00:00:00:00:01, -j DROP");
    ASSERT_TRUE(table.chains[0].rules[1].rule);
    EXPECT_EQ(table.chains[0].rules[1].rule->target, "DROP");
}

TEST(TableTest, ChainsAreFoundByName)
{
    Table table = parseSaved("*filter\n:User RETURN\n-A User -j DROP\n");
    EXPECT_EQ(table.find("User"), &table.chains[3]);
    EXPECT_EQ(std::as_const(table).find("FORWARD"), &table.chains[1]);
    EXPECT_EQ(table.find("user"), nullptr);
    EXPECT_EQ(std::as_const(table).find(""), nullptr);
}

} // namespace
