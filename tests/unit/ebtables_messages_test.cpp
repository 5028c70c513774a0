#include "platform_linux/queue/messages.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace std::string_literals;
using ebtables::Messages;
using ebtables::parseMessages;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace ebtables
{

bool operator==(const Messages::Line& one, const Messages::Line& other)
{
    return one.number == other.number && one.reason == other.reason;
}

void PrintTo(const Messages::Line& line, std::ostream* out)
{
    *out << line.number << ": " << line.reason;
}

} // namespace ebtables

namespace
{

using Line = Messages::Line;

TEST(MessagesTest, TheKernelNamesEachLine)
{
    const Messages messages = parseMessages(4, "ebtables-restore v1.8.9 (nf_tables): \n"
                                               "line 2: CHAIN_USER_ADD failed (File exists): chain U\n"
                                               "line 17: RULE_APPEND failed (Invalid argument): rule in chain U\n");
    EXPECT_THAT(messages.lines, ElementsAre(Line{2, "CHAIN_USER_ADD failed (File exists): chain U"},
                                            Line{17, "RULE_APPEND failed (Invalid argument): rule in chain U"}));
    EXPECT_FALSE(messages.cut);
    EXPECT_FALSE(messages.shortage);
}

TEST(MessagesTest, ALineThatIsCutOffIsNotBelieved)
{
    const std::string whole = "line 2: RULE_APPEND failed (Invalid argument): rule in chain U\n"
                              "line 34: RULE_APPEND failed (Invalid argument): rule in chain U\n";
    const std::size_t second = whole.find('\n') + 1;
    for (std::size_t length = second + 6; length < whole.size(); ++length) {
        const Messages messages = parseMessages(4, std::string_view(whole).substr(0, length));
        EXPECT_THAT(messages.lines, SizeIs(1)) << "line 3 would be wrong: " << whole.substr(second, length - second);
        EXPECT_TRUE(messages.cut) << length;
    }
}

TEST(MessagesTest, AListThatFillsTheToolsBufferMayBeIncomplete)
{
    std::string text;
    for (int number = 0; number < 10; ++number)
        text += "line 1" + std::to_string(number) + ": " + std::string(90, 'x') + '\n'; // 100 bytes
    EXPECT_FALSE(parseMessages(4, text).cut);
    EXPECT_TRUE(parseMessages(4, text + "line 20: " + std::string(20, 'x') + '\n').cut);
    EXPECT_FALSE(parseMessages(1, text + text).cut);
}

TEST(MessagesTest, TheParserNamesTheLineBehindTheReason)
{
    const Messages messages = parseMessages(2, "ebtables-restore v1.8.9 (nf_tables): Unknown argument: '--colour'\n"
                                               "Error occurred at line: 5\n"
                                               "Try `ebtables-restore -h' or 'ebtables-restore --help' for more.\n");
    EXPECT_THAT(messages.lines, ElementsAre(Line{5, "Unknown argument: '--colour'"}));
}

TEST(MessagesTest, TheParserMayGiveNoReason)
{
    EXPECT_THAT(parseMessages(2, "Error occurred at line: 5\n").lines,
                ElementsAre(Line{5, "refused without a reason"}));
    EXPECT_THAT(parseMessages(2, "Error occurred at line: x\n").lines, IsEmpty());
}

TEST(MessagesTest, TheToolsOwnRulesNameOneLine)
{
    EXPECT_THAT(parseMessages(1, "ebtables-restore: line 3 failed: Bad rule (does it exist?).\n").lines,
                ElementsAre(Line{3, "Bad rule (does it exist?)."}));
    EXPECT_THAT(parseMessages(1, "ebtables-restore: line 3 failed.\n").lines,
                ElementsAre(Line{3, "refused without a reason"}));
    EXPECT_THAT(parseMessages(1, "ebtables-restore: line 3 failed").lines,
                ElementsAre(Line{3, "refused without a reason"}));
}

TEST(MessagesTest, AFormCountsOnlyWithItsExitStatus)
{
    const std::string_view kernel = "line 3: no\n";
    const std::string_view own = "ebtables-restore: line 3 failed: no\n";
    const std::string_view parser = "no\nError occurred at line: 3\n";
    for (const int status : {0, 3, 255}) {
        for (const std::string_view text : {kernel, own, parser})
            EXPECT_THAT(parseMessages(status, text).lines, IsEmpty()) << status << text;
    }
    EXPECT_THAT(parseMessages(1, kernel).lines, IsEmpty());
    EXPECT_THAT(parseMessages(2, own).lines, IsEmpty());
    EXPECT_THAT(parseMessages(4, parser).lines, IsEmpty());
}

TEST(MessagesTest, OtherWordsAreKeptAsTextOnly)
{
    for (const std::string_view text : {"", "\n\n", "line", "line \n", "line x: no\n", "line -3: no\n", "line 3 no\n",
                                        "line 99999999999999999999: no\n", "xline 3: no\n"}) {
        for (const int status : {1, 2, 4})
            EXPECT_THAT(parseMessages(status, text).lines, IsEmpty()) << text;
    }
    EXPECT_EQ(parseMessages(4, "  first\n\nebtables-restore v1.8.9: \n second \n").text, "first / second ");
}

TEST(MessagesTest, AnyBytesMakeOnePrintableLineOfLimitedLength)
{
    const Messages messages = parseMessages(4, "line 2: a\x1b[2J\0b\xff\r\n"s + std::string(5000, 'x') + "\nmore\n");
    EXPECT_THAT(messages.lines, ElementsAre(Line{2, "a\\x1b[2J\\x00b\\xff\\x0d"}));
    EXPECT_LE(messages.text.size(), 600U);
    for (const char c : messages.text)
        EXPECT_TRUE(c >= ' ' && c <= '~');
}

TEST(MessagesTest, MemoryThatRunsOutIsNoFaultOfTheLines)
{
    EXPECT_TRUE(parseMessages(4, "line 2: RULE_APPEND failed (Cannot allocate memory): rule in chain U\n").shortage);
    EXPECT_TRUE(parseMessages(1, "sendmsg() failed: No buffer space available\n").shortage);
    EXPECT_TRUE(parseMessages(1, "ebtables-restore: Unable to open socket: Too many open files\n").shortage);
    EXPECT_FALSE(parseMessages(4, "line 2: RULE_APPEND failed (No such file or directory)\n").shortage);
}

} // namespace
