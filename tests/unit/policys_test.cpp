#include "records/policys.hpp"

#include "platform_fake/recording_queue.hpp"
#include "tests/unit/record_test_support.hpp"

#include <gtest/gtest.h>

using recordtest::takeLog;
using zol::moatkeeper::ForwardingPolicy;
using zol::moatkeeper::InputPolicy;
using Call = fake::QueueCall;

TEST(InputPolicy, AddAndDeleteLines)
{
    EXPECT_EQ(InputPolicy(7, "eth0", "DROP", 0).addCommand(), "ebtables -A UserInputPolicy -i eth0 -j DROP");
    EXPECT_EQ(InputPolicy(7, "eth0", "DROP", 0).deleteCommand(), "ebtables -D UserInputPolicy -i eth0 -j DROP");
    const InputPolicy logging(3, "wlan0", "ACCEPT", 1);
    const std::string rule = " UserInputPolicy -i wlan0 --log --log-prefix \"Moatkeeper accepted: \" -j ACCEPT";
    EXPECT_EQ(logging.addCommand(), "ebtables -A" + rule);
    EXPECT_EQ(logging.deleteCommand(), "ebtables -D" + rule);
}

TEST(ForwardingPolicy, AddAndDeleteLines)
{
    const ForwardingPolicy logging(2, "eth0", "eth1", "DROP", 1);
    const std::string rule = " UserForwardPolicy -i eth0 -o eth1 --log --log-prefix \"Moatkeeper denied: \" -j DROP";
    EXPECT_EQ(logging.addCommand(), "ebtables -A" + rule);
    EXPECT_EQ(logging.deleteCommand(), "ebtables -D" + rule);
    const ForwardingPolicy plain(4, "eth1", "eth0", "ACCEPT", 0);
    EXPECT_EQ(plain.addCommand(), "ebtables -A UserForwardPolicy -i eth1 -o eth0 -j ACCEPT");
    EXPECT_EQ(plain.deleteCommand(), "ebtables -D UserForwardPolicy -i eth1 -o eth0 -j ACCEPT");
}

TEST(Policies, UnknownOnesAreReportedAndHaveNoLines)
{
    fake::capturedLog().takeLines();
    for (const std::string& odd : recordtest::texts()) {
        const InputPolicy input(9, "eth0", odd, 1);
        EXPECT_EQ(input.addCommand() + input.deleteCommand(), "");
        EXPECT_EQ(takeLog(), std::vector<std::string>{"error policys:59 AssembleSystemCalls: unknown Policy " + odd});
        const ForwardingPolicy forward(9, "eth0", "eth1", odd, 0);
        EXPECT_EQ(forward.addCommand() + forward.deleteCommand(), "");
        EXPECT_EQ(takeLog(), std::vector<std::string>{"error policys:127 AssembleSystemCalls: unknown Policy " + odd});
    }
}

TEST(Policies, TextsGoIntoTheLineAsTheyAre)
{
    for (const std::string& odd : recordtest::texts()) {
        EXPECT_EQ(InputPolicy(1, odd, "DROP", 0).addCommand(), "ebtables -A UserInputPolicy -i " + odd + " -j DROP");
        EXPECT_EQ(ForwardingPolicy(1, odd, odd, "DROP", 0).addCommand(),
                  "ebtables -A UserForwardPolicy -i " + odd + " -o " + odd + " -j DROP");
    }
}

TEST(Policies, OnlyOneMeansLogging)
{
    for (const std::int32_t number : recordtest::integers) {
        const bool logs = number == 1;
        EXPECT_EQ(InputPolicy(number, "a", "DROP", number).addCommand().find("--log") != std::string::npos, logs);
        EXPECT_EQ(ForwardingPolicy(number, "a", "b", "DROP", number).addCommand().find("--log") != std::string::npos,
                  logs);
        EXPECT_EQ(InputPolicy(number, "a", "DROP", 0).id(), number);
        EXPECT_EQ(ForwardingPolicy(number, "a", "b", "DROP", 0).id(), number);
    }
}

TEST(Policies, RegisterTheLogModuleOncePerConstructionAndNotPerCopy)
{
    fake::capturedLog().reset();
    const InputPolicy input(1, "a", "DROP", 0);
    const ForwardingPolicy forward(1, "a", "b", "DROP", 0);
    InputPolicy inputCopy(input);
    ForwardingPolicy forwardCopy(forward);
    inputCopy = input;
    forwardCopy = forward;
    EXPECT_EQ(fake::capturedLog().registrations("moatkeeper"), 2U);
    EXPECT_EQ(inputCopy.addCommand(), input.addCommand());
    EXPECT_EQ(forwardCopy.deleteCommand(), forward.deleteCommand());
}

TEST(InputPolicy, EveryRowValueCountsInTheComparison)
{
    const InputPolicy policy(1, "a", "DROP", 0);
    EXPECT_FALSE(policy != InputPolicy(1, "a", "DROP", 0));
    EXPECT_TRUE(policy != InputPolicy(2, "a", "DROP", 0));
    EXPECT_TRUE(policy != InputPolicy(1, "A", "DROP", 0));
    EXPECT_TRUE(policy != InputPolicy(1, "a", "ACCEPT", 0));
    EXPECT_TRUE(policy != InputPolicy(1, "a", "DROP", 2));
}

TEST(ForwardingPolicy, EveryRowValueCountsInTheComparison)
{
    const ForwardingPolicy policy(1, "a", "b", "DROP", 0);
    EXPECT_FALSE(policy != ForwardingPolicy(1, "a", "b", "DROP", 0));
    EXPECT_TRUE(policy != ForwardingPolicy(2, "a", "b", "DROP", 0));
    EXPECT_TRUE(policy != ForwardingPolicy(1, "A", "b", "DROP", 0));
    EXPECT_TRUE(policy != ForwardingPolicy(1, "a", "B", "DROP", 0));
    EXPECT_TRUE(policy != ForwardingPolicy(1, "a", "b", "ACCEPT", 0));
    EXPECT_TRUE(policy != ForwardingPolicy(1, "a", "b", "DROP", 2));
}

TEST(Policies, OnlyDifferByTheirRowValues)
{
    static_assert(recordtest::OnlyDiffers<InputPolicy> && recordtest::OnlyDiffers<ForwardingPolicy>);
    EXPECT_FALSE(recordtest::differWithOtherLogHandles([] { return InputPolicy(1, "a", "x", 0); }));
    EXPECT_FALSE(recordtest::differWithOtherLogHandles([] { return ForwardingPolicy(1, "a", "b", "x", 0); }));
}

TEST(Policies, ApplyQueuesTheAddLineAndReturnsTheResult)
{
    fake::RecordingQueue queue;
    queue.processResult = 5;
    EXPECT_EQ(InputPolicy(1, "a", "DROP", 0).ApplySystemCall(&queue), 5);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add("ebtables -A UserInputPolicy -i a -j DROP"), Call::process()}));
    EXPECT_EQ(ForwardingPolicy(1, "a", "b", "DROP", 0).ApplySystemCall(&queue), 5);
    EXPECT_EQ(queue.takeCalls(),
              (std::vector{Call::add("ebtables -A UserForwardPolicy -i a -o b -j DROP"), Call::process()}));
    EXPECT_EQ(InputPolicy(1, "a", "", 0).ApplySystemCall(&queue), 5);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(""), Call::process()}));
    EXPECT_EQ(ForwardingPolicy(1, "a", "b", "", 0).ApplySystemCall(&queue), 5);
    EXPECT_EQ(queue.takeCalls(), (std::vector{Call::add(""), Call::process()}));
}
