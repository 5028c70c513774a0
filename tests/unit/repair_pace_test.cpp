#include "platform_linux/queue/repair_pace.hpp"

#include <gtest/gtest.h>

using zol::cfg::RepairPace;
using namespace std::chrono_literals;

namespace
{

TEST(RepairPaceTest, SingleRepairsAreAtOnceAndTold)
{
    RepairPace pace;
    RepairPace::Clock::time_point now{};
    for (int i = 0; i < 100; ++i) {
        const RepairPace::Verdict verdict = pace.repaired(now += 20s);
        EXPECT_TRUE(verdict.tell);
        EXPECT_FALSE(verdict.tellStorm);
        EXPECT_EQ(verdict.pause, 0ms);
    }
}

TEST(RepairPaceTest, AFightForAMinuteIsFewLinesAndLongerPauses)
{
    RepairPace pace;
    RepairPace::Clock::time_point now{};
    const auto end = now + 60s;
    int repairs = 0;
    int lines = 0;
    std::chrono::milliseconds longest{0};
    while (now < end) {
        const RepairPace::Verdict verdict = pace.repaired(now);
        ++repairs;
        lines += (verdict.tell ? 1 : 0) + (verdict.tellStorm ? 1 : 0);
        longest = std::max(longest, verdict.pause);
        now += std::max(verdict.pause, 10ms);
    }
    EXPECT_LE(lines, 10);
    EXPECT_GE(lines, 2);
    EXPECT_LE(repairs, 100);
    EXPECT_GE(longest, 4s);
    EXPECT_LE(longest, 30s);
}

} // namespace
