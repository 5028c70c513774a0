#include "ovsdb/message_framer.hpp"

#include "ovsdb/error.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace
{

using ovsdb::MessageFramer;
using ovsdb::ProtocolError;

std::vector<std::string> allOf(MessageFramer& framer)
{
    std::vector<std::string> messages;
    while (auto message = framer.next())
        messages.push_back(message->text);
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

// Each piece: a message, or TABLE|MEMBER.
std::vector<std::string> piecesOf(std::string_view bytes, std::size_t depth, std::size_t atATime)
{
    MessageFramer framer;
    framer.splitRowsAt(depth);
    std::vector<std::string> pieces;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(atATime, bytes.size()))) {
        framer.append(bytes.substr(0, atATime));
        while (const auto piece = framer.next())
            pieces.push_back(piece->isRow ? piece->table + '|' + piece->text : piece->text);
    }
    EXPECT_FALSE(framer.unfinished());
    return pieces;
}

TEST(OvsdbMessageFramerTest, RowsAreCutOutOfTheMessage)
{
    const std::string message = R"({"a": "{", "b": {"T" : {"r1": {"c": [1, "},"]}, "r,2":5 }, "U": { }, "V": [{}]}})";
    const std::vector<std::string> wanted{R"("T"|"r1": {"c": [1, "},"]})", R"("T"| "r,2":5 )",
                                          R"({"a": "{", "b": {"T" : {"":2}, "U": {"":0}, "V": [{}]}})"};
    for (const std::size_t atATime : {message.size(), std::size_t{1}, std::size_t{7}})
        EXPECT_EQ(piecesOf(message, 3, atATime), wanted) << atATime;
    EXPECT_EQ(piecesOf(message + message, 3, 5).size(), 6U);
    EXPECT_EQ(piecesOf(message, 0, 5), std::vector<std::string>{message});
}

TEST(OvsdbMessageFramerTest, ARowHasALimitOfItsOwn)
{
    MessageFramer framer;
    framer.splitRowsAt(2);
    framer.append(R"({"T":{"r":")" + std::string(ovsdb::maximumPieceSize, 'x'));
    EXPECT_THROW(framer.next(), ProtocolError);
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
    EXPECT_FALSE(framer.next());
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
    EXPECT_LE(taken, ovsdb::maximumPieceSize + block.size());
}

TEST(OvsdbMessageFramerTest, TheLargestMessagePasses)
{
    std::string message = "{\"a\":\"";
    message += std::string(ovsdb::maximumPieceSize - message.size() - 2, 'x') + "\"}";
    MessageFramer framer;
    framer.append(message);
    EXPECT_EQ(framer.next()->text, message);
}

} // namespace
