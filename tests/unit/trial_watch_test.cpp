// When a change that nobody confirms goes back: by clocks that the test hands in.
#include "platform_linux/trial_watch.hpp"

#include "schema/history.hpp"
#include "schema/server/database.hpp"
#include "tests/unit/captured_descriptor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

namespace
{

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using testing::HasSubstr;
using zol::cfg::TrialWatch;
using Clock = std::chrono::steady_clock;

class TrialWatchTest : public testing::Test
{
protected:
    struct Sent {
        Clock::time_point when;
        std::string text;
        std::function<void(const std::optional<std::string>&)> answered;
    };

    TrialWatchTest()
    {
        m_clocks = {
            .boot = "this", .uptime = 1'000'000ms, .wall = std::chrono::sys_days(std::chrono::January / 31 / 2026)};
    }

    // Begun by now, on this machine or another.
    schema::Trial trial(const char* boot, std::uint8_t number = 1) const
    {
        schema::Trial made{.change = 17, .seconds = 1, .began = "2026-01-31T00:00:00.000Z", .boot = boot};
        made.uptime = std::to_string(m_clocks.uptime.count());
        made.uuid.bytes[0] = number;
        made.verb = "rule add";
        made.changes = R"([{"table":"MoatKeeperRuleset","after":{"Id":1,"RulePrio":10}}])";
        return made;
    }
    TrialWatch::Send sender()
    {
        return [this](const std::vector<ovsdb::Json>& operations, auto answered) {
            m_sent.push_back({Clock::now(), ovsdb::toText(ovsdb::Json(operations)), std::move(answered)});
        };
    }
    TrialWatch watch()
    {
        return TrialWatch(
            "here", m_tables, m_dispatcher, m_logModule, sender(),
            [this](const schema::Trial* trial) { m_takenBack = trial == nullptr ? 0 : trial->change; },
            [this] { return m_clocks; });
    }
    // How long after `began` it sent something more.
    milliseconds waitForMore(Clock::time_point began = Clock::now())
    {
        const std::size_t known = m_sent.size();
        while (m_sent.size() == known)
            m_dispatcher.handleEvents();
        return std::chrono::duration_cast<milliseconds>(m_sent.back().when - began);
    }
    void nothingMoreIn(milliseconds time)
    {
        const std::size_t known = m_sent.size();
        bool over = false;
        m_dispatcher.startTimer(time, [&over] { over = true; });
        while (!over)
            m_dispatcher.handleEvents();
        EXPECT_EQ(m_sent.size(), known);
    }

    CapturedDescriptor m_log{STDERR_FILENO};
    ZOL_Sysloglevel_Module m_logModule = ZOL_Sysloglevel_registerModul("test");
    tessera::net::EventDispatcher::State m_dispatcher;
    ovsdb::TableCache m_tables{schema::serverDatabaseWithDevices(), {std::string(schema::historyTable)}};
    schema::Clocks m_clocks;
    std::vector<Sent> m_sent;
    int m_takenBack = -1; // the change, or 0 when it was told that this is over
};

TEST_F(TrialWatchTest, GoesBackWhenItsTimeIsOver)
{
    TrialWatch watched = watch();
    const auto began = Clock::now();
    watched.update(trial("this"), false);
    const milliseconds waited = waitForMore(began);
    EXPECT_GE(waited, 1s);
    EXPECT_LT(waited, 2s);
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"({"op":"wait","table":"MoatKeeperTrial")"));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"({"op":"delete","table":"MoatKeeperRuleset","where":[["Id","==",1]]})"));
    EXPECT_THAT(m_sent[0].text, HasSubstr(R"("Undoes":17)"));
    EXPECT_THAT(m_log.text(), HasSubstr("change 17 (rule add) was not confirmed in time"));
}

TEST_F(TrialWatchTest, AClockThatJumpsDoesNotMatter)
{
    for (const char* boot : {"this", "another"}) {
        for (const auto jump : {-1h, 1h}) {
            TrialWatch watched = watch();
            const auto began = Clock::now();
            watched.update(trial(boot), false);
            m_dispatcher.startTimer(300ms, [this, jump] { m_clocks.wall += jump; });
            const milliseconds waited = waitForMore(began);
            EXPECT_GE(waited, 1s) << boot;
            EXPECT_LT(waited, 2s) << boot;
        }
    }
}

TEST_F(TrialWatchTest, AClockThatJumpedWhileTheDaemonWasAwayDoesNotMatterEither)
{
    for (const auto jump : {-1h, 1h}) {
        const schema::Trial waits = trial("this");
        m_clocks.uptime += 600ms;
        m_clocks.wall += jump;
        TrialWatch watched = watch();
        const auto began = Clock::now();
        watched.update(waits, true);
        const milliseconds waited = waitForMore(began);
        EXPECT_GE(waited, 400ms);
        EXPECT_LT(waited, 1400ms);
    }
}

TEST_F(TrialWatchTest, AfterAPowerCutTheWallClockDecides)
{
    const schema::Trial waits = trial("the one before");
    m_clocks.uptime = 5s;
    const auto left = [&](std::chrono::seconds after) {
        schema::Clocks now = m_clocks;
        now.wall += after;
        return schema::remaining(waits, now);
    };
    EXPECT_EQ(left(0s), 1s);
    EXPECT_EQ(left(10s), 0s);
    EXPECT_EQ(left(-10s), 1s) << "never more than all of it";
    m_clocks.wall += 10s;
    TrialWatch watched = watch();
    watched.update(waits, true);
    EXPECT_LT(waitForMore(), 1s);
}

TEST_F(TrialWatchTest, ATimeThatNobodyCanReadIsAllOfIt)
{
    schema::Trial waits = trial("another");
    waits.began = "yesterday";
    EXPECT_EQ(schema::remaining(waits, m_clocks), 1s);
    waits = trial("this");
    waits.uptime = "-5";
    EXPECT_EQ(schema::remaining(waits, m_clocks), 1s) << "the wall clock then";

    waits.seconds = -1;
    EXPECT_EQ(schema::remaining(waits, m_clocks), 0s) << "from a server that takes anything";
}

TEST_F(TrialWatchTest, WhatIsConfirmedStays)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    watched.update(std::nullopt, false);
    nothingMoreIn(1200ms);
    EXPECT_TRUE(m_sent.empty());
}

TEST_F(TrialWatchTest, ANewConnectionNeitherBeginsAnewNorForgets)
{
    TrialWatch watched = watch();
    watched.update(trial("another"), false);
    nothingMoreIn(500ms);
    watched.update(trial("another"), true);
    EXPECT_LT(waitForMore(), 900ms);
    watched.update(trial("another"), true); // nobody answered
    EXPECT_LT(waitForMore(), 500ms);
    m_sent.back().answered(std::nullopt);
    watched.update(std::nullopt, false);
    nothingMoreIn(300ms);
}

TEST_F(TrialWatchTest, WhoeverIsSecondDoesNothing)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    waitForMore();
    m_sent.back().answered("timed out: wait");
    nothingMoreIn(500ms);
    EXPECT_EQ(m_sent.size(), 1U);
}

TEST_F(TrialWatchTest, WhatTheServerRefusesIsTriedAgainWithoutAnEntryInTheHistory)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    waitForMore();
    EXPECT_THAT(m_sent.back().text, HasSubstr("MoatKeeperHistory"));
    m_sent.back().answered("constraint violation: so what");
    waitForMore();
    EXPECT_THAT(m_sent.back().text, testing::Not(HasSubstr("MoatKeeperHistory")));
    EXPECT_THAT(m_sent.back().text, HasSubstr("MoatKeeperRuleset"));
}

TEST_F(TrialWatchTest, WithoutAnAnswerItIsTakenBackHereUntilTheServerSaysHowItEnded)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    waitForMore();
    nothingMoreIn(700ms);
    EXPECT_EQ(m_takenBack, -1);
    nothingMoreIn(500ms);
    EXPECT_EQ(m_takenBack, 17);
    watched.update(trial("this"), true); // still there on a new connection: tried again, and taken back as before
    waitForMore();
    EXPECT_EQ(m_takenBack, 17);
    watched.update(std::nullopt, false);
    EXPECT_EQ(m_takenBack, 0);
    EXPECT_THAT(m_log.text(), HasSubstr("change 17 (rule add) is taken back here"));
}

TEST_F(TrialWatchTest, WhatTheServerDoesInTimeIsNotTakenBackHere)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    waitForMore();
    m_sent.back().answered(std::nullopt);
    watched.update(std::nullopt, false);
    nothingMoreIn(1200ms);
    EXPECT_EQ(m_takenBack, -1);
}

TEST_F(TrialWatchTest, WithoutTheRightToItIsTakenBackHereAtOnceAndNotTriedForEver)
{
    TrialWatch watched = watch();
    watched.update(trial("this"), false);
    waitForMore();
    m_sent.back().answered("permission error: RBAC rules prohibit row deletion");
    EXPECT_EQ(m_takenBack, 17);
    nothingMoreIn(1500ms);
    schema::Trial next = trial("this", 2);
    next.change = 18;
    watched.update(next, false);
    EXPECT_EQ(m_takenBack, 0) << "another trial has its own time";
}

TEST_F(TrialWatchTest, ATrialThatIsNoListOfRowsIsTold)
{
    TrialWatch watched = watch();
    schema::Trial waits = trial("this");
    waits.changes = "[";
    watched.update(waits, false);
    nothingMoreIn(1500ms);
    EXPECT_TRUE(m_sent.empty());
    EXPECT_THAT(m_log.text(), HasSubstr("cannot be put back"));
}

} // namespace
