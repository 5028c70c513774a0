#include "platform_linux/start_settings.hpp"

#include "ebtables/line_parser.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using zol::cfg::StartSettings;

TEST(StartSettingsTest, NothingSetIsOpen)
{
    for (const char* nothing : {static_cast<const char*>(nullptr), ""}) {
        const auto settings = StartSettings::from({nothing, nothing, nothing});
        EXPECT_FALSE(settings.closed);
        EXPECT_EQ(settings.wait, 30s);
        EXPECT_THAT(settings.problems, IsEmpty());
    }
}

TEST(StartSettingsTest, TheTwoWords)
{
    EXPECT_FALSE(StartSettings::from({.untilConfigured = "open"}).closed);
    EXPECT_TRUE(StartSettings::from({.untilConfigured = "closed"}).closed);
    EXPECT_THAT(StartSettings::from({.untilConfigured = "closed"}).problems, IsEmpty());
}

TEST(StartSettingsTest, AnotherWordIsClosedAndTold)
{
    for (const char* word : {"Closed", "close", "yes", " open", "open\n", "0"}) {
        const auto settings = StartSettings::from({.untilConfigured = word});
        EXPECT_TRUE(settings.closed) << word;
        EXPECT_THAT(settings.problems, ElementsAre(StartsWith("MOATKEEPER_UNTIL_CONFIGURED in the environment: \"")));
    }
    EXPECT_EQ(StartSettings::from({.untilConfigured = "a\x1b\n"}).problems.front(),
              "MOATKEEPER_UNTIL_CONFIGURED in the environment: \"a\\x1b\\x0a\": expected open or closed. It is closed "
              "until there is a configuration");
}

TEST(StartSettingsTest, PortsAndAddresses)
{
    const auto settings = StartSettings::from(
        {.allowed = "  lan0\tlan+\n02:00:00:00:00:01 2:0:0:0:0:2 02:00:00:00:00:00/ff:ff:ff:0:0:0 "});
    EXPECT_THAT(settings.ports, ElementsAre("lan0", "lan+"));
    EXPECT_THAT(settings.macs, ElementsAre("02:00:00:00:00:01", "2:0:0:0:0:2", "02:00:00:00:00:00/ff:ff:ff:0:0:0"));
    EXPECT_THAT(settings.problems, IsEmpty());
}

TEST(StartSettingsTest, WhatIsNeitherIsLeftOutAndTheRestStays)
{
    for (const char* wrong :
         {"+", "a-name-that-is-too-long", "a/b", "-p", "!", "lan0;reboot", "$(id)", "a\"b", "02:00:00:00:00",
          "02:00:00:00:00:01:02", "02:00:00:00:00:gg", "eth0:1", "02:00:00:00:00:01/", "\xff\xfe"}) {
        const std::string list = std::string("lan0 ") + wrong + " 02:00:00:00:00:01";
        const auto settings = StartSettings::from({.allowed = list.c_str()});
        EXPECT_THAT(settings.ports, ElementsAre("lan0")) << wrong;
        EXPECT_THAT(settings.macs, ElementsAre("02:00:00:00:00:01")) << wrong;
        ASSERT_THAT(settings.problems, ElementsAre(StartsWith("MOATKEEPER_ALLOWED in the environment: \""))) << wrong;
        EXPECT_EQ(settings.problems.front().find('\n'), std::string::npos);
    }
}

TEST(StartSettingsTest, SoManyAreEnough)
{
    std::string list;
    for (int i = 0; i < 100'000; ++i)
        list += "p" + std::to_string(i) + ' ';
    const auto settings = StartSettings::from({.allowed = list.c_str()});
    EXPECT_EQ(settings.ports.size(), 64);
    EXPECT_THAT(settings.problems, ElementsAre("MOATKEEPER_ALLOWED in the environment: \"p64\": expected at most 64 "
                                               "entries. The rest is left out"));
}

TEST(StartSettingsTest, EntriesThatAreWrongDoNotFillTheLog)
{
    std::string list = "lan0 ";
    for (int i = 0; i < 100'000; ++i)
        list += "! ";
    const auto settings = StartSettings::from({.allowed = list.c_str()});
    EXPECT_THAT(settings.ports, ElementsAre("lan0"));
    EXPECT_EQ(settings.problems.size(), 64);
}

TEST(StartSettingsTest, TheWait)
{
    EXPECT_EQ(StartSettings::from({.waitSeconds = "0"}).wait, 0s);
    EXPECT_EQ(StartSettings::from({.waitSeconds = "60"}).wait, 60s);
    for (const char* wrong : {"61", "-1", "1 ", " 1", "1.5", "99999999999999999999", "x"}) {
        const auto settings = StartSettings::from({.waitSeconds = wrong});
        EXPECT_EQ(settings.wait, 30s) << wrong;
        EXPECT_THAT(settings.problems, ElementsAre(StartsWith("MOATKEEPER_WAIT_SECONDS in the environment: \"")));
    }
}

TEST(StartSettingsTest, WhatItClosesWithAreCommandsOfTheTool)
{
    const auto settings = StartSettings::from({.untilConfigured = "closed", .allowed = "lan+ 02:00:00:00:00:01"});
    const std::vector<std::string> lines = settings.closingLines();
    for (const std::string& line : lines) {
        const auto parsed = ebtables::parseLine(line);
        EXPECT_FALSE(parsed.error) << line;
        EXPECT_EQ(parsed.commands.size(), 1) << line;
    }
    EXPECT_EQ(lines.back(), "ebtables -P FORWARD DROP");
}

} // namespace
