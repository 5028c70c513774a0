// How it stands with a device, by its row and a clock.
#include "moatctl/command_line/quorum.hpp"
#include "moatctl/tables/device_state.hpp"

#include "schema/device.hpp"
#include "text/utc_time.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace
{

using namespace moatctl;
using namespace std::chrono_literals;

const std::chrono::system_clock::time_point noon = *text::parseUtcTime("2026-01-31T12:00:00.000Z");

std::string ago(std::chrono::seconds time)
{
    return text::utcTime(noon - time);
}

Device inForce(std::int32_t number)
{
    return {.name = "b1",
            .number = number,
            .since = ago(100s),
            .inStep = true,
            .inStepSince = ago(200s),
            .reason = {},
            .rules = 3,
            .notInForce = {},
            .notInForceCount = 0,
            .repaired = {},
            .repairedWhat = {},
            .engine = "plain",
            .version = "1",
            .started = ago(300s),
            .seen = ago(100s)};
}

Reference at(std::int32_t number)
{
    return {.now = noon, .number = number, .heartbeat = 0s, .changes = {}};
}

TEST(DeviceState, InForceSinceThen)
{
    const DeviceState state = stateOf(inForce(7), at(7));
    EXPECT_EQ(state.standing, Standing::InForce);
    EXPECT_EQ(state.time, 100s);
    EXPECT_EQ(state.behind, 0);
    EXPECT_TRUE(isInOrder(state));
}

TEST(DeviceState, WhereNobodyCountsChangesNothingIsBehind)
{
    const DeviceState state = stateOf(inForce(7), {.now = noon});
    EXPECT_EQ(state.standing, Standing::InForce);
    EXPECT_EQ(state.behind, std::nullopt);
}

TEST(DeviceState, LinesThatAreRefusedAreInPart)
{
    Device device = inForce(7);
    device.notInForceCount = 1;
    EXPECT_EQ(stateOf(device, at(7)).standing, Standing::InPart);
}

TEST(DeviceState, BehindSinceTheFirstChangeThatItLacks)
{
    Reference reference = at(7);
    reference.changes = {noon - 1s, noon - 20s, noon - 50s};
    const DeviceState two = stateOf(inForce(5), reference);
    EXPECT_EQ(two.standing, Standing::Behind);
    EXPECT_EQ(two.behind, 2);
    EXPECT_EQ(two.time, 20s);
    EXPECT_FALSE(two.atLeast);
    const DeviceState four = stateOf(inForce(3), reference);
    EXPECT_EQ(four.behind, 4);
    EXPECT_EQ(four.time, 50s);
    EXPECT_TRUE(four.atLeast) << "the history goes no further back";
    EXPECT_EQ(stateOf(inForce(6), at(7)).time, std::nullopt) << "there is no history";
    const DeviceState none = stateOf(inForce(-1), reference);
    EXPECT_EQ(none.standing, Standing::Behind);
    EXPECT_EQ(none.behind, std::nullopt);
}

TEST(DeviceState, NumbersBeginAgain)
{
    EXPECT_EQ(stateOf(inForce(schema::changeNumbers - 1), at(1)).behind, 2);
    EXPECT_EQ(stateOf(inForce(1), at(schema::changeNumbers - 1)).behind, 0) << "it has a later one";
}

TEST(DeviceState, NotInStepAndBehind)
{
    Device device = inForce(5);
    device.inStep = false;
    const DeviceState state = stateOf(device, at(7));
    EXPECT_EQ(state.standing, Standing::NotInStep);
    EXPECT_EQ(state.behind, 2);
    EXPECT_EQ(state.time, 200s);
}

TEST(DeviceState, SilentWhenTwoHeartbeatsHaveNotCome)
{
    Reference reference = at(7);
    EXPECT_EQ(stateOf(inForce(5), reference).standing, Standing::Behind) << "without a heartbeat nobody can tell";
    reference.heartbeat = 48s;
    EXPECT_EQ(stateOf(inForce(7), reference).standing, Standing::InForce) << "it may be late";
    reference.heartbeat = 47s;
    DeviceState state = stateOf(inForce(7), reference);
    EXPECT_EQ(state.standing, Standing::Silent);
    EXPECT_EQ(state.time, 100s);
    state = stateOf(inForce(5), reference);
    EXPECT_EQ(state.standing, Standing::Silent);
    EXPECT_EQ(state.behind, 2);
}

TEST(DeviceState, AClockThatIsAheadOrNoTimeAtAll)
{
    Device device = inForce(7);
    device.seen = ago(-1000s);
    device.since = ago(-1000s);
    Reference reference = at(7);
    reference.heartbeat = 1s;
    EXPECT_EQ(stateOf(device, reference).standing, Standing::InForce);
    EXPECT_EQ(stateOf(device, reference).time, 0s);
    device.seen = "yesterday";
    device.since.clear();
    EXPECT_EQ(stateOf(device, reference).standing, Standing::InForce);
    EXPECT_EQ(stateOf(device, reference).time, std::nullopt);
}

TEST(DeviceState, StoppedOrNeverHeardOf)
{
    Device device = inForce(-1);
    device.started.clear();
    EXPECT_EQ(stateOf(device, at(7)).standing, Standing::Unheard);
    device.reason = "the daemon was stopped";
    EXPECT_EQ(stateOf(device, at(7)).standing, Standing::Stopped);
    EXPECT_EQ(stateOf(device, at(7)).time, 200s);
}

TEST(DeviceState, TimesInWords)
{
    for (const auto& [time, words] :
         {std::pair(0s, "0 s"), std::pair(59s, "59 s"), std::pair(60s, "1 min"), std::pair(192s, "3 min 12 s"),
          std::pair(3600s, "1 h"), std::pair(3659s, "1 h"), std::pair(18'180s, "5 h 3 min"),
          std::pair(190'800s, "2 d 5 h"), std::pair(-5s, "0 s")})
        EXPECT_EQ(inWords(time), words);
}

std::vector<StandingDevice> standing(const std::vector<Device>& devices, const Reference& reference)
{
    std::vector<StandingDevice> made;
    for (const Device& device : devices)
        made.push_back({.device = device, .state = stateOf(device, reference)});
    return made;
}

Device named(const std::string& name, std::int32_t number)
{
    Device device = inForce(number);
    device.name = name;
    return device;
}

TEST(DeviceWatch, WhatWasInForceMustStayEachOtherMayChange)
{
    Device off = named("d", 7);
    off.started.clear();
    const std::vector<Device> before{named("a", 7), named("b", 6), off};
    std::vector<Device> now = before;
    DeviceWatch watch(standing(before, at(7)), 7);
    const auto isFine = [&] { return watch.look(standing(now, at(7))).empty() && watch.away().empty(); };
    EXPECT_TRUE(isFine());
    now[1].number = 5;
    now[2] = named("d", 7);
    EXPECT_TRUE(isFine()) << "those did not have it";
    now.push_back(named("f", 7));
    EXPECT_TRUE(isFine());
    now[0].number = 8;
    EXPECT_TRUE(isFine()) << "a later change includes it";
}

TEST(DeviceWatch, EachIsToldByName)
{
    Reference reference = at(7);
    reference.heartbeat = 60s;
    std::vector<Device> before;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g"})
        before.push_back(named(name, 7));
    std::vector<Device> now = before;
    now[0].number = 6;
    now[1].inStep = false;
    now[1].reason = "no rights";
    now[2].seen = ago(200s);
    now[3].started.clear();
    now[4].notInForceCount = 2;
    now.pop_back();
    DeviceWatch watch(standing(before, reference), 7);
    EXPECT_EQ(
        watch.look(standing(now, reference)),
        (std::vector<std::string>{"a does not have it in force any more", "b is not in step: no rights",
                                  "c is silent for 3 min 20 s", "e refuses 2 lines more", "g has no row any more"}));
    EXPECT_EQ(watch.away(), std::vector<std::string>{"d does not apply it any more"});
}

TEST(DeviceWatch, ADaemonThatIsStartedAnewIsAwayUntilItHasTheChange)
{
    std::vector<Device> devices{named("a", 7)};
    DeviceWatch watch(standing(devices, at(7)), 7);
    const auto look = [&] { return watch.look(standing(devices, at(7))); };
    for (const char* started : {"2026-11-22T00:00:01.000Z", "2026-11-22T00:00:02.000Z"}) {
        devices[0] = named("a", -1);
        devices[0].inStep = false;
        devices[0].reason = "the daemon was stopped";
        devices[0].started.clear();
        EXPECT_TRUE(look().empty());
        EXPECT_EQ(watch.away(), std::vector<std::string>{"a does not apply it any more: the daemon was stopped"});
        devices[0].started = started;
        devices[0].reason.clear();
        EXPECT_TRUE(look().empty());
        EXPECT_EQ(watch.away(), std::vector<std::string>{"a is not in step"});
        devices[0].inStep = true;
        EXPECT_TRUE(look().empty());
        EXPECT_EQ(watch.away(), std::vector<std::string>{"a does not have it in force any more"});
        devices[0].number = 7;
        EXPECT_TRUE(look().empty());
        EXPECT_TRUE(watch.away().empty());
    }
    devices[0].inStep = false;
    EXPECT_EQ(look(), std::vector<std::string>{"a is not in step"}) << "it was back";
    devices[0] = named("a", 7);
    devices[0].started = "2026-11-22T00:00:03.000Z";
    EXPECT_EQ(look(), std::vector<std::string>{"a was started 3 times"});
}

TEST(Quorum, AllANumberOrAPercentage)
{
    EXPECT_EQ(parseQuorum("all"), Quorum());
    EXPECT_EQ(parseQuorum("20"), Quorum{.number = 20});
    EXPECT_EQ(parseQuorum("95%"), (Quorum{.number = 0, .percent = 95}));
    EXPECT_EQ(parseQuorum("100%"), Quorum());
    for (const char* text :
         {"", "0", "0%", "101%", "-1", "+1", "1.5", "5 %", "%", "all ", "1000001", "99999999999999999999"})
        EXPECT_EQ(parseQuorum(text), std::nullopt) << text;
    for (const char* text : {"all", "20", "95%"})
        EXPECT_EQ(toText(*parseQuorum(text)), text);
}

TEST(Quorum, WhatIsNotWholeIsOneMore)
{
    EXPECT_EQ(Quorum().of(3), 3U);
    EXPECT_EQ((Quorum{.number = 0, .percent = 95}).of(100), 95U);
    EXPECT_EQ((Quorum{.number = 0, .percent = 95}).of(10), 10U);
    EXPECT_EQ((Quorum{.number = 0, .percent = 1}).of(0), 1U);
    EXPECT_EQ(Quorum{.number = 20}.of(3), 20U);
}

} // namespace
