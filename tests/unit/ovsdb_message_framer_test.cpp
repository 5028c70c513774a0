#include "ovsdb/message_framer.hpp"

#include "ovsdb/error.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace
{

using ovsdb::MessageFramer;
using ovsdb::ProtocolError;

std::vector<std::string> allOf(MessageFramer& framer)
{
    std::vector<std::string> messages;
    while (auto message = framer.next())
        messages.push_back(*message);
    return messages;
}

const std::vector<std::string> three{R"({"a":[1,{"b":"}"}]})", R"({"t":"\\\"{[" })", "{}"};

TEST(OvsdbMessageFramerTest, CutsWhereTheOutermostBracketCloses)
{
    MessageFramer framer;
    framer.append(" \n" + three[0] + three[1] + "\t" + three[2] + "  ");
    EXPECT_EQ(allOf(framer), three);
    EXPECT_FALSE(framer.unfinished());
}

TEST(OvsdbMessageFramerTest, BytesMayComeOneAtATime)
{
    MessageFramer framer;
    std::vector<std::string> messages;
    for (const char c : three[0] + three[1] + " " + three[2]) {
        framer.append({&c, 1});
        for (auto& message : allOf(framer))
            messages.push_back(message);
    }
    EXPECT_EQ(messages, three);
}

TEST(OvsdbMessageFramerTest, KnowsAnUnfinishedMessage)
{
    MessageFramer framer;
    framer.append(R"({} {"a": )");
    EXPECT_EQ(allOf(framer), std::vector<std::string>{"{}"});
    EXPECT_TRUE(framer.unfinished());
    framer.append("1}");
    EXPECT_EQ(allOf(framer), std::vector<std::string>{R"({"a": 1})"});
    EXPECT_FALSE(framer.unfinished());
}

TEST(OvsdbMessageFramerTest, RefusesWhatBeginsNoMessage)
{
    for (const char* bytes : {"[1]", "x", "\xff", "}", "{}]"}) {
        MessageFramer framer;
        framer.append(bytes);
        EXPECT_THROW(allOf(framer), ProtocolError) << bytes;
    }
}

TEST(OvsdbMessageFramerTest, RefusesDepthBeforeTheMessageEnds)
{
    MessageFramer framer;
    framer.append("{\"a\":" + std::string(ovsdb::maximumMessageDepth - 1, '['));
    EXPECT_EQ(framer.next(), std::nullopt);
    framer.append("[");
    EXPECT_THROW(framer.next(), ProtocolError);
}

TEST(OvsdbMessageFramerTest, RefusesSizeBeforeTheMessageEnds)
{
    MessageFramer framer;
    framer.append("{\"a\":\"");
    const std::string block(1024 * 1024, 'x');
    std::size_t taken = 0;
    const auto feed = [&] {
        for (;;) {
            framer.append(block);
            taken += block.size();
            framer.next();
        }
    };
    EXPECT_THROW(feed(), ProtocolError);
    EXPECT_LE(taken, ovsdb::maximumMessageSize + block.size());
}

TEST(OvsdbMessageFramerTest, TheLargestMessagePasses)
{
    std::string message = "{\"a\":\"";
    message += std::string(ovsdb::maximumMessageSize - message.size() - 2, 'x') + "\"}";
    MessageFramer framer;
    framer.append(message);
    EXPECT_EQ(framer.next(), message);
}

} // namespace
