#include "tests/unit/scratch_folder.hpp"
#include "text/one_line.hpp"
#include "text/small_file.hpp"
#include "text/utc_time.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace
{

TEST(OneLine, HidesNothingAndCuts)
{
    EXPECT_EQ(text::oneLine("a\nb\x7f\xc3\xa4"), "a\\x0ab\\x7f\\xc3\\xa4");
    EXPECT_EQ(text::oneLine("abcdef", 3), "abc...");
    EXPECT_EQ(text::oneLine("abc", 3), "abc");
}

TEST(InQuotes, ACutStandsBehindTheQuotationMark)
{
    EXPECT_EQ(text::inQuotes("eth0\n"), "\"eth0\\x0a\"");
    EXPECT_EQ(text::inQuotes("abcdef", 3), "\"abc\"...");
}

TEST(SmallFile, IsReadUpToItsLimit)
{
    const ScratchFolder folder;
    folder.write("lines", "two\nlines");
    folder.write("large", std::string(70000, 'a'));
    EXPECT_EQ(text::readSmallFile(folder.path("lines")), "two\nlines");
    EXPECT_EQ(text::readSmallFile(folder.path("large")), std::string(65536, 'a'));
    EXPECT_EQ(text::readSmallFile(folder.path("none")), "");
    EXPECT_EQ(text::readSmallFile(folder.path()), "");
}

TEST(UtcTime, IsReadAsItIsWritten)
{
    using namespace std::chrono;
    const system_clock::time_point time = sys_days(January / 31 / 2026) + 23h + 59min + 7s + 45ms;
    EXPECT_EQ(text::utcTime(time), "2026-01-31T23:59:07.045Z");
    EXPECT_EQ(text::parseUtcTime("2026-01-31T23:59:07.045Z"), time);
    EXPECT_EQ(text::parseUtcTime("1970-01-01T00:00:00.000Z"), system_clock::time_point());
}

TEST(UtcTime, NothingElseIsRead)
{
    for (const char* wrong : {"", "yesterday", "2026-01-31", "2026-02-30T00:00:00.000Z", "2026-01-31T24:00:00.000Z",
                              "2026-01-31T23:59:07.045", "2026-01-31T23:59:07.045Z ", " 2026-01-31T23:59:07.045Z",
                              "2026-01-31T23:59:7.045Z", "2026-01-31T23:-9:07.045Z"})
        EXPECT_FALSE(text::parseUtcTime(wrong)) << wrong;
}

} // namespace
