#include "records/filters.hpp"

#include "platform_fake/recording_queue.hpp"
#include "tests/unit/record_test_support.hpp"

#include <gtest/gtest.h>

using recordtest::takeLog;
using zol::moatkeeper::BridgeFilter;
using zol::moatkeeper::BridgeFilterRule;
using Call = fake::QueueCall;

TEST(BridgeFilter, AllLinesOfABlacklist)
{
    const BridgeFilter filter(7, "blacklist", "eth0", "wlan0", "ipv4", 10);
    EXPECT_TRUE(filter.valid());
    EXPECT_EQ(filter.chainName(), "10wlan0eth0ipv4blacklist");
    EXPECT_EQ(filter.createChainCommand(),
              "ebtables -N 10wlan0eth0ipv4blacklist; ebtables -P 10wlan0eth0ipv4blacklist RETURN");
    EXPECT_EQ(filter.insertJumpsCommand(),
              "ebtables -I FORWARD 1 -i wlan0 -o eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;ebtables -I FORWARD 1 -o "
              "wlan0 -i eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;");
    EXPECT_EQ(filter.flushChainCommand(), "ebtables -F 10wlan0eth0ipv4blacklist; ebtables -X 10wlan0eth0ipv4blacklist");
    EXPECT_EQ(filter.deleteJumpsCommand(),
              "ebtables -D FORWARD -i wlan0 -o eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;ebtables -D FORWARD -o wlan0 "
              "-i eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;");
}

TEST(BridgeFilter, AnInvalidOneKeepsItsChainName)
{
    fake::capturedLog().takeLines();
    const BridgeFilter filter(7, "Whitelist", "eth0", "wlan0", "ipv4", -10);
    EXPECT_FALSE(filter.valid());
    EXPECT_EQ(filter.chainName(), "-10wlan0eth0ipv4Whitelist");
    EXPECT_EQ(filter.createChainCommand() + filter.insertJumpsCommand() + filter.flushChainCommand() +
                  filter.deleteJumpsCommand(),
              "");
    EXPECT_EQ(takeLog(), (std::vector<std::string>{
                             "warning filters:95 AssembleSystemCalls: Filter ID 7 has invalid mode: Whitelist",
                             "warning filters:136 AssembleSystemCalls: Filter ID 7 is invalid and will be "
                             "ignored"}));
    EXPECT_EQ(BridgeFilter(8, std::string(31, 'm'), "a", "b", "mac", 1).chainName(), "FilterID8");
}

TEST(BridgeFilter, LengthOfTheChainName)
{
    // 1 + interfaces + "mac" + "blacklist"
    EXPECT_EQ(BridgeFilter(3, "blacklist", std::string(8, 'i'), std::string(9, 'o'), "mac", 1).chainName().size(), 30U);
    EXPECT_EQ(BridgeFilter(3, "blacklist", std::string(9, 'i'), std::string(9, 'o'), "mac", 1).chainName(),
              "FilterID3");
}

TEST(BridgeFilter, SetUpAndTearDownInTheirOrder)
{
    fake::RecordingQueue queue;
    queue.processResult = 4;
    const BridgeFilter filter(7, "whitelist", "a", "b", "mac", 1);
    EXPECT_EQ(filter.ApplySetUpCommands(&queue), 4);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(filter.createChainCommand()),
                                              Call::add(filter.insertJumpsCommand()), Call::process()}));
    EXPECT_EQ(filter.ApplyTearDownCommands(&queue), 4);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(filter.deleteJumpsCommand()),
                                              Call::add(filter.flushChainCommand()), Call::process()}));
    BridgeFilter(7, "", "a", "b", "mac", 1).ApplySetUpCommands(&queue);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(""), Call::add(""), Call::process()}));
}

TEST(BridgeFilter, ComparesAllRowValuesButTheCriteria)
{
    const BridgeFilter filter(1, "blacklist", "a", "b", "mac", 1);
    EXPECT_FALSE(filter != BridgeFilter(1, "blacklist", "a", "b", "mac", 1));
    EXPECT_FALSE(filter != BridgeFilter(1, "blacklist", "a", "b", "IPv6", 1));
    EXPECT_TRUE(filter != BridgeFilter(2, "blacklist", "a", "b", "mac", 1));
    EXPECT_TRUE(filter != BridgeFilter(1, "whitelist", "a", "b", "mac", 1));
    EXPECT_TRUE(filter != BridgeFilter(1, "blacklist", "A", "b", "mac", 1));
    EXPECT_TRUE(filter != BridgeFilter(1, "blacklist", "a", "B", "mac", 1));
    EXPECT_TRUE(filter != BridgeFilter(1, "blacklist", "a", "b", "mac", 2));
}

TEST(Filters, OnlyDifferByTheComparedValues)
{
    static_assert(recordtest::OnlyDiffers<BridgeFilter> && recordtest::OnlyDiffers<BridgeFilterRule>);
    EXPECT_FALSE(recordtest::differWithOtherLogHandles([] { return BridgeFilter(1, "x", "a", "b", "mac", 1); }));
    EXPECT_FALSE(recordtest::differWithOtherLogHandles([] { return BridgeFilterRule(1, "x", "c", "mac", "m"); }));
}

TEST(Filters, RegisterTheLogModuleOncePerConstructionAndNotPerCopy)
{
    fake::capturedLog().reset();
    const BridgeFilter filter(1, "blacklist", "a", "b", "mac", 1);
    const BridgeFilterRule rule(1, "blacklist", "chain", "mac", "m");
    BridgeFilter filterCopy(filter);
    BridgeFilterRule ruleCopy(rule);
    filterCopy = filter;
    ruleCopy = rule;
    EXPECT_EQ(fake::capturedLog().registrations("moatkeeper"), 2U);
    EXPECT_EQ(filterCopy.chainName(), filter.chainName());
    EXPECT_TRUE(filterCopy.valid());
    EXPECT_EQ(ruleCopy.addCommand(), rule.addCommand());
}

TEST(BridgeFilter, ValuesAtTheEdges)
{
    for (const std::int32_t number : recordtest::integers) {
        const BridgeFilter filter(number, "blacklist", "a", "b", "mac", number);
        EXPECT_EQ(filter.chainName(), std::to_string(number) + "bamacblacklist");
        EXPECT_EQ(filter.id(), number);
        EXPECT_EQ(filter.prio(), number);
        EXPECT_EQ(BridgeFilter(number, "blacklist", "a", std::string(99, 'b'), "mac", 1).chainName(),
                  "FilterID" + std::to_string(number));
    }
    for (const std::string& odd : recordtest::texts()) {
        const BridgeFilter filter(1, "blacklist", odd, odd, odd, 5);
        const std::string composed = "5" + odd + odd + odd + "blacklist";
        const std::string chain = composed.size() <= 30 ? composed : "FilterID1";
        EXPECT_EQ(filter.deleteJumpsCommand(), "ebtables -D FORWARD -i " + odd + " -o " + odd + " -j " + chain +
                                                   ";ebtables -D FORWARD -o " + odd + " -i " + odd + " -j " + chain +
                                                   ";");
        EXPECT_EQ(filter.matchCriteria(), odd);
        fake::capturedLog().takeLines();
        EXPECT_FALSE(BridgeFilter(-5, odd, "a", "b", "mac", 1).valid());
        EXPECT_EQ(takeLog(),
                  (std::vector<std::string>{
                      "warning filters:95 AssembleSystemCalls: Filter ID -5 has invalid mode: " + odd,
                      "warning filters:136 AssembleSystemCalls: Filter ID -5 is invalid and will be ignored"}));
    }
}

TEST(BridgeFilterRule, AddAndDeleteLines)
{
    const BridgeFilterRule ip(3, "blacklist", "c", "ipv4", "192.168.1.0/24");
    EXPECT_EQ(ip.addCommand(), "ebtables -A c -p 0x800 --ip-source 192.168.1.0/24 -j DROP");
    EXPECT_EQ(ip.deleteCommand(), "ebtables -D c -p 0x800 --ip-source  192.168.1.0/24 -j DROP");
    const BridgeFilterRule mac(4, "whitelist", "FilterID12", "mac", "00:11:22:33:44:55");
    EXPECT_EQ(mac.addCommand(), "ebtables -A FilterID12 -s 00:11:22:33:44:55 -j RETURN");
    EXPECT_EQ(mac.deleteCommand(), "ebtables -D FilterID12 -s 00:11:22:33:44:55 -j RETURN");
    const BridgeFilterRule vlan(9, "blacklist", "c", "VLAN", "100");
    EXPECT_EQ(vlan.addCommand(), "ebtables -A c -p 802_1Q --vlan-id 100 -j DROP");
    EXPECT_EQ(vlan.deleteCommand(), "ebtables -D c -p 802_1Q --vlan-id 100 -j DROP");
    const BridgeFilterRule ip6(9, "blacklist", "c", "IPv6", "fe80::1");
    EXPECT_EQ(ip6.addCommand(), "ebtables -A c -p 0x86DD --ip6-source fe80::1 -j DROP");
    EXPECT_EQ(ip6.deleteCommand(), "ebtables -D c -p 0x86DD --ip6-source fe80::1 -j DROP");
}

TEST(BridgeFilterRule, AnUnknownModeGivesTheLastWarningAlone)
{
    fake::capturedLog().takeLines();
    for (const std::string& odd : recordtest::texts()) {
        const BridgeFilterRule rule(-3, odd, "c", "mac", "m");
        EXPECT_EQ(rule.addCommand() + rule.deleteCommand(), "");
        EXPECT_EQ(takeLog(),
                  std::vector<std::string>{
                      "warning filters:255 AssembleSystemCalls: Filter ID -3 is invalid and will be ignored"});
    }
}

TEST(BridgeFilterRule, VlanTextIsReadLikeANumberAndWrittenAsItIs)
{
    for (const std::string good : {"0", "4095", "100x", "abc", " 7", "+7", "", "-0", "0x10"})
        EXPECT_EQ(BridgeFilterRule(1, "blacklist", "c", "vlan", good).addCommand(),
                  "ebtables -A c -p 802_1Q --vlan-id " + good + " -j DROP");
    for (const std::string bad : {"4096", "-1", "4096x", "  9999", "2147483647", "-2147483648"}) {
        fake::capturedLog().takeLines();
        const BridgeFilterRule rule(2, "whitelist", "c", "VLAN", bad);
        EXPECT_EQ(rule.addCommand() + rule.deleteCommand(), "");
        EXPECT_EQ(takeLog(),
                  (std::vector<std::string>{
                      "warning filters:233 AssembleSystemCalls: Filter rule ID 2 has invalid VLAN ID criteria: " + bad,
                      "warning filters:255 AssembleSystemCalls: Filter ID 2 is invalid and will be ignored"}));
    }
}

TEST(BridgeFilterRule, EveryValueCountsInTheComparison)
{
    const BridgeFilterRule rule(1, "blacklist", "c", "mac", "m");
    EXPECT_FALSE(rule != BridgeFilterRule(1, "blacklist", "c", "mac", "m"));
    EXPECT_TRUE(rule != BridgeFilterRule(2, "blacklist", "c", "mac", "m"));
    EXPECT_TRUE(rule != BridgeFilterRule(1, "whitelist", "c", "mac", "m"));
    EXPECT_TRUE(rule != BridgeFilterRule(1, "blacklist", "C", "mac", "m"));
    EXPECT_TRUE(rule != BridgeFilterRule(1, "blacklist", "c", "MAC", "m"));
    EXPECT_TRUE(rule != BridgeFilterRule(1, "blacklist", "c", "mac", "M"));
}

TEST(BridgeFilterRule, ApplyQueuesTheAddLineAndReturnsTheResult)
{
    fake::RecordingQueue queue;
    queue.processResult = 6;
    EXPECT_EQ(BridgeFilterRule(1, "blacklist", "c", "mac", "m").ApplySystemCall(&queue), 6);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add("ebtables -A c -s m -j DROP"), Call::process()}));
    BridgeFilterRule(1, "blacklist", "c", "x", "m").ApplySystemCall(&queue);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(""), Call::process()}));
}

TEST(BridgeFilterRule, TextsGoIntoTheLineAsTheyAre)
{
    for (const std::string& odd : recordtest::texts()) {
        EXPECT_EQ(BridgeFilterRule(1, "whitelist", odd, "MAC", odd).addCommand(),
                  "ebtables -A " + odd + " -s " + odd + " -j RETURN");
        fake::capturedLog().takeLines();
        EXPECT_EQ(BridgeFilterRule(1, "whitelist", "c", odd, "m").addCommand(), "");
        EXPECT_EQ(takeLog(),
                  (std::vector<std::string>{
                      "warning filters:246 AssembleSystemCalls: Filter rule ID 1 has invalid match type: " + odd,
                      "warning filters:255 AssembleSystemCalls: Filter ID 1 is invalid and will be ignored"}));
    }
}
