// When the device's row is written, and what becomes of answers that are late, wrong or missing.
#include "platform_linux/device_row.hpp"

#include "schema/device.hpp"
#include "tests/unit/captured_descriptor.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using ovsdb::Json;
using testing::HasSubstr;
using zol::cfg::DeviceRow;
using Clock = std::chrono::steady_clock;

class DeviceRowTest : public testing::Test
{
protected:
    struct Sent {
        Json operation;
        std::function<void(const Json&, const std::optional<std::string>&)> answered;
    };

    zol::cfg::SendOperation sender()
    {
        return [this](Json operation, auto answered) { m_sent.push_back({std::move(operation), std::move(answered)}); };
    }
    void answer(std::size_t index, std::int64_t count)
    {
        m_sent.at(index).answered(Json::Object{{"count", Json(count)}}, std::nullopt);
    }
    void refuse(std::size_t index, const char* why = "constraint violation: so what")
    {
        m_sent.at(index).answered({}, why);
    }
    std::string kind(std::size_t index) { return *m_sent.at(index).operation.find("op")->asText(); }
    std::int64_t number(std::size_t index)
    {
        return *m_sent.at(index).operation.find("row")->find(schema::device::number)->asInteger();
    }
    std::string seen(std::size_t index)
    {
        return *m_sent.at(index).operation.find("row")->find(schema::device::seen)->asText();
    }
    void inForce(DeviceRow& row, std::int32_t change) { row.update(change, {.inStep = true}); }
    // Lets the timers run until something more is sent.
    void waitForMore(std::size_t sent)
    {
        while (m_sent.size() <= sent)
            m_dispatcher.handleEvents();
    }
    auto linesLogged() const { return std::ranges::count(m_log.text(), '\n'); }

    CapturedDescriptor m_log{STDERR_FILENO};
    ZOL_Sysloglevel_Module m_logModule = ZOL_Sysloglevel_registerModul("test");
    tessera::net::EventDispatcher::State m_dispatcher;
    std::vector<Sent> m_sent;
};

TEST_F(DeviceRowTest, IsInsertedWhenNoRowOfThatNameIsThereToUpdate)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    inForce(row, 7);
    EXPECT_TRUE(m_sent.empty()) << "no server has the table yet";
    row.setServed(true);
    ASSERT_EQ(m_sent.size(), 1U);
    EXPECT_EQ(kind(0), "update");
    answer(0, 0);
    ASSERT_EQ(m_sent.size(), 2U);
    EXPECT_EQ(kind(1), "insert");
    EXPECT_EQ(*m_sent[1].operation.find("row")->find("Name")->asText(), "here");
    EXPECT_EQ(number(1), 7);
    answer(1, 1);
    EXPECT_EQ(m_sent.size(), 2U) << "all is told";
}

TEST_F(DeviceRowTest, IsWrittenTenTimesASecondAtMostAndTheNewestStateWins)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    const auto begin = Clock::now();
    std::vector<Clock::time_point> times;
    for (std::int32_t change = 0; m_sent.size() < 5; ++change) {
        inForce(row, change);
        if (m_sent.size() > times.size()) {
            times.push_back(Clock::now());
            answer(times.size() - 1, 1);
        }
        inForce(row, ++change);
        if (m_sent.size() == times.size())
            waitForMore(times.size());
        EXPECT_EQ(number(m_sent.size() - 1), change) << "not what was so when the pause began";
    }
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(400));
}

TEST_F(DeviceRowTest, WaitsForTheAnswerAndIsWrittenAnewAfterALostConnection)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    inForce(row, 1);
    inForce(row, 2);
    EXPECT_EQ(m_sent.size(), 1U) << "the answer is to come";
    row.setServed(true); // it never came
    waitForMore(1);
    EXPECT_EQ(number(1), 2);
    answer(1, 1);
    row.setServed(false);
    inForce(row, 3);
    EXPECT_EQ(m_sent.size(), 2U);
}

TEST_F(DeviceRowTest, IsWrittenAgainAfterEachHeartbeatOnlyWhereThereIsOne)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    const auto begin = Clock::now();
    row.update(1, {.inStep = true}, 1);
    answer(0, 1);
    waitForMore(1);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(499));
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(5000)) << "machines in tests are slow";
    EXPECT_EQ(number(1), 1);
    EXPECT_NE(seen(1), seen(0));
    answer(1, 0); // somebody has deleted it
    ASSERT_EQ(kind(2), "insert");
    EXPECT_FALSE(seen(2).empty());
    answer(2, 1);
    row.update(1, {.inStep = true}, 0);
    waitForMore(3); // the last of them
    EXPECT_EQ(m_sent.size(), 4U);
}

TEST_F(DeviceRowTest, WhatWasRefusedIsWrittenAgainAfterAWhile)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender(), std::chrono::milliseconds(20));
    row.setServed(true);
    inForce(row, 1);
    refuse(0);
    waitForMore(1);
    EXPECT_EQ(number(1), 1);
    answer(1, 1);
    bool over = false;
    m_dispatcher.startTimer(std::chrono::milliseconds(100), [&over] { over = true; });
    while (!over)
        m_dispatcher.handleEvents();
    EXPECT_EQ(m_sent.size(), 2U) << "it was taken";
}

TEST_F(DeviceRowTest, WhatARelayDidNotGetThroughIsNotLeftToTheHeartbeat)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender(), std::chrono::milliseconds(20));
    row.setServed(true);
    row.update(1, {.inStep = true}, 900);
    refuse(0, "canceled");
    waitForMore(1);
    EXPECT_EQ(number(1), 1);
    EXPECT_EQ(linesLogged(), 0);
}

TEST_F(DeviceRowTest, ARefusalIsToldOnceAndNotRepeatedAtOnce)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    inForce(row, 1);
    refuse(0);
    EXPECT_THAT(m_log.text(),
                HasSubstr("device:20: the server does not take what is in force here: constraint violation"));
    inForce(row, 1);
    EXPECT_EQ(m_sent.size(), 1U);
    inForce(row, 2);
    waitForMore(1);
    refuse(1);
    EXPECT_EQ(linesLogged(), 1);
}

TEST_F(DeviceRowTest, WhatIsNotInStepKeepsTheNumberThatIsInForce)
{
    DeviceRow row("here", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    inForce(row, 1);
    answer(0, 1);
    row.update(2, {.inStep = false, .reason = "no rights"});
    waitForMore(1);
    const Json& written = *m_sent[1].operation.find("row");
    EXPECT_EQ(number(1), 1);
    EXPECT_EQ(written.find(schema::device::inStep)->asInteger(), 0);
    EXPECT_EQ(*written.find(schema::device::reason)->asText(), "no rights");
}

TEST_F(DeviceRowTest, ANameThatNoRowCanHave)
{
    DeviceRow row("no name", m_dispatcher, m_logModule, sender());
    row.setServed(true);
    inForce(row, 1);
    row.stop();
    EXPECT_TRUE(m_sent.empty());
    EXPECT_THAT(m_log.text(),
                HasSubstr(R"(device:10: the host name "no name" cannot name a device: expected 1 to 64)"));
    EXPECT_EQ(linesLogged(), 1);
}

} // namespace
