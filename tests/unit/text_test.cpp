#include "text/one_line.hpp"

#include <gtest/gtest.h>

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

} // namespace
