#include "records/etherrules.hpp"

#include "platform_fake/recording_queue.hpp"
#include "tests/unit/record_test_support.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <type_traits>
#include <utility>

using recordtest::takeLog;
using zol::moatkeeper::EtherRule;

namespace
{

struct Values {
    std::int32_t id = 1, prio = 10;
    std::string in = "eth0", out, dst, src;
    std::int32_t vlan = -1;
    std::string type, ipSrc, ipDst, proto;
    std::int32_t port = 0;
    std::string target = "ACCEPT";
    std::int32_t logging = 0;

    EtherRule make() const
    {
        return EtherRule(id, prio, in, out, dst, src, vlan, type, ipSrc, ipDst, proto, port, target, logging);
    }
};

std::string text(std::int32_t number)
{
    return std::to_string(number);
}

} // namespace

TEST(EtherRule, DeleteLineIsTheAddLineWithAnotherCommand)
{
    Values values;
    values.out = "eth1";
    values.type = "IPv4";
    values.ipSrc = "192.168.1.0/24";
    values.ipDst = "10.0.0.1";
    values.proto = "TCP";
    values.port = 80;
    values.target = "DROP";
    values.logging = 1;
    const EtherRule rule = values.make();
    const std::string options = " UserForwardRules -i eth0 -o eth1 -p IPv4 --ip-source 192.168.1.0/24 --ip-destination "
                                "10.0.0.1 --ip-protocol 6 --ip-destination-port 80 --log --log-prefix \"Moatkeeper "
                                "denied: \" -j DROP";
    EXPECT_EQ(rule.addCommand(), "ebtables -A" + options);
    EXPECT_EQ(rule.deleteCommand(), "ebtables -D" + options);
}

TEST(EtherRule, InvalidOnesHaveNoLines)
{
    const std::vector<std::function<void(Values&)>> faults = {[](Values& v) { v.vlan = 4095; },
                                                              [](Values& v) { v.target = "REJECT"; },
                                                              [](Values& v) {
                                                                  v.type = "ARP";
                                                                  v.proto = "ICMP";
                                                              }};
    for (const auto& fault : faults) {
        Values values;
        fault(values);
        const EtherRule rule = values.make();
        EXPECT_EQ(rule.addCommand(), "");
        EXPECT_EQ(rule.deleteCommand(), "");
        EXPECT_EQ(takeLog().size(), 1U);
    }
}

TEST(EtherRule, RegistersTheLogModuleOncePerConstructionAndNotPerCopy)
{
    fake::capturedLog().reset();
    const EtherRule rule = Values().make();
    EXPECT_EQ(fake::capturedLog().registrations("moatkeeper"), 1U);
    const EtherRule copy(rule);
    EtherRule assigned = copy;
    assigned = rule;
    EXPECT_EQ(fake::capturedLog().registrations("moatkeeper"), 1U);
    EXPECT_EQ(assigned.addCommand(), rule.addCommand());
    EXPECT_EQ(assigned.deleteCommand(), rule.deleteCommand());
    Values().make();
    EXPECT_EQ(fake::capturedLog().registrations("moatkeeper"), 2U);
}

TEST(EtherRule, LogsWithTheHandleOfItsModule)
{
    fake::capturedLog().reset();
    Values values;
    values.target = "x";
    values.make();
    const auto lines = fake::capturedLog().takeLines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(fake::capturedLog().moduleName(lines[0].module), "moatkeeper");
}

TEST(EtherRule, EveryRowValueCountsInTheComparison)
{
    const std::vector<std::function<void(Values&)>> changes = {
        [](Values& v) { v.id = 2; },          [](Values& v) { v.prio = 11; },   [](Values& v) { v.in = "ETH0"; },
        [](Values& v) { v.out = "x"; },       [](Values& v) { v.dst = "x"; },   [](Values& v) { v.src = "x"; },
        [](Values& v) { v.vlan = 1; },        [](Values& v) { v.type = "x"; },  [](Values& v) { v.ipSrc = "x"; },
        [](Values& v) { v.ipDst = "x"; },     [](Values& v) { v.proto = "x"; }, [](Values& v) { v.port = 1; },
        [](Values& v) { v.target = "DROP"; }, [](Values& v) { v.logging = 2; }};
    const EtherRule rule = Values().make();
    EXPECT_FALSE(rule != Values().make());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        Values values;
        changes[i](values);
        EXPECT_TRUE(rule != values.make()) << "field " << i;
    }
}

TEST(EtherRule, OnlyDiffersByItsRowValues)
{
    static_assert(recordtest::OnlyDiffers<EtherRule>);
    EXPECT_FALSE(recordtest::differWithOtherLogHandles([] {
        Values values;
        values.target = "x";
        return values.make();
    }));
}

// Lines are strings of their own, which a caller may keep a reference to as long as the record.
static_assert(std::is_same_v<decltype(std::declval<EtherRule>().addCommand()), const std::string&>);
static_assert(std::is_same_v<decltype(std::declval<EtherRule>().deleteCommand()), const std::string&>);

TEST(EtherRule, ApplyQueuesTheAddLineAndReturnsTheResult)
{
    fake::RecordingQueue queue;
    queue.processResult = -7;
    const EtherRule rule = Values().make();
    EXPECT_EQ(rule.ApplySystemCall(&queue), -7);
    using Call = fake::QueueCall;
    EXPECT_EQ(queue.takeCalls(),
              (std::vector{Call::add("ebtables -A UserInputRules -i eth0 -j ACCEPT"), Call::process()}));

    Values invalid;
    invalid.target = "";
    queue.processResult = 3;
    EXPECT_EQ(invalid.make().ApplySystemCall(&queue), 3);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(""), Call::process()}));
}

TEST(EtherRule, IntegersAtTheEdges)
{
    fake::capturedLog().takeLines();
    for (const std::int32_t number : recordtest::integers) {
        Values values;
        values.id = values.prio = values.port = values.vlan = number;
        values.type = "IPv4";
        const EtherRule rule = values.make();
        EXPECT_EQ(rule.id(), number);
        EXPECT_EQ(rule.rulePrio(), number);
        if (number == -1) {
            EXPECT_EQ(rule.addCommand(),
                      "ebtables -A UserInputRules -i eth0 -p IPv4 --ip-destination-port -1 -j ACCEPT");
        } else if (number >= 0 && number <= 4094) {
            EXPECT_EQ(rule.addCommand(), "ebtables -A UserInputRules -i eth0 -p 802_1Q --vlan-id " + text(number) +
                                             " --vlan-encap IPv4 -j ACCEPT");
        } else {
            EXPECT_EQ(rule.addCommand(), "");
            EXPECT_EQ(takeLog(),
                      std::vector{"error etherrules:121 AssembleSystemCalls: invalid VLAN ID" + text(number)});
        }
        values.vlan = -1;
        values.port = 0;
        values.target = "?";
        values.make();
        EXPECT_EQ(takeLog(), std::vector{"warning etherrules:201 AssembleSystemCalls: MoatKeeperRule ID " +
                                         text(number) + " has invalid target: ?"});
    }
}

TEST(EtherRule, TextsGoIntoTheLineAsTheyAre)
{
    for (const std::string& odd : recordtest::texts()) {
        Values values;
        values.in = values.dst = values.src = odd;
        values.type = odd;
        const std::string macs = odd.empty() ? "" : " -d " + odd + " -s " + odd + " -p " + odd;
        EXPECT_EQ(values.make().addCommand(), "ebtables -A UserInputRules -i " + odd + macs + " -j ACCEPT");

        values = Values();
        values.out = values.ipSrc = values.ipDst = odd;
        values.type = "0x86DD";
        const std::string chain = odd.empty() ? "UserInputRules -i eth0" : "UserForwardRules -i eth0 -o " + odd;
        const std::string ip = odd.empty() ? "" : " --ip6-source " + odd + " --ip6-destination " + odd;
        EXPECT_EQ(values.make().addCommand(), "ebtables -A " + chain + " -p 0x86DD" + ip + " -j ACCEPT");

        fake::capturedLog().takeLines();
        values = Values();
        values.type = "IPv4";
        values.proto = values.target = odd;
        EXPECT_EQ(values.make().addCommand(), "");
        std::vector<std::string> lines;
        if (!odd.empty())
            lines.push_back("error etherrules:165 AssembleSystemCalls: unknown ethertype " + odd);
        lines.push_back("warning etherrules:201 AssembleSystemCalls: MoatKeeperRule ID 1 has invalid target: " + odd);
        EXPECT_EQ(takeLog(), lines);
    }
}
