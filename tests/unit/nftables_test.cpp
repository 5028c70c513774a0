#include "ebtables/line_parser.hpp"
#include "nftables/attributes.hpp"
#include "nftables/batch.hpp"
#include "nftables/connection.hpp"
#include "nftables/generation_watch.hpp"
#include "nftables/rule_message.hpp"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using ebtables::Rule;
using testing::IsEmpty;

namespace
{

std::string hex(const void* bytes, std::size_t size)
{
    std::string result;
    char digits[3];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(bytes)[i]);
        result += digits;
    }
    return result;
}

// Behind the beginning and the table.
const nlmsghdr* firstChange(nftables::Bytes batch)
{
    const auto* message = reinterpret_cast<const nlmsghdr*>(batch.data());
    int left = static_cast<int>(batch.size());
    for (std::uint32_t i = 0; i < nftables::Batch::ahead; ++i)
        message = mnl_nlmsg_next(message, &left);
    return message;
}

// The message of a batch that adds this rule.
struct RuleMessage {
    explicit RuleMessage(const ebtables::Command& command) : batch(std::nullopt)
    {
        batch.addRule(command.chain, command.rule, {});
        message = firstChange(batch.finish(1));
    }
    nftables::Batch batch;
    const nlmsghdr* message;
};

struct Recorded {
    std::string line;
    std::string bytes;
};

std::vector<Recorded> recorded()
{
    std::ifstream file(MOATKEEPER_RULE_MESSAGES);
    std::vector<Recorded> result;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("ebtables "))
            result.push_back({line, ""});
        else if (line.starts_with("  "))
            result.back().bytes += line.substr(2);
    }
    return result;
}

TEST(NftablesRuleTest, TheToolsMessagesByteByByte)
{
    const std::vector<Recorded> all = recorded();
    EXPECT_GE(all.size(), 11U);
    for (const Recorded& known : all) {
        const ebtables::ParsedLine parsed = ebtables::parseLine(known.line);
        ASSERT_EQ(parsed.commands.size(), 1U) << known.line;
        const RuleMessage made(parsed.commands.front());
        EXPECT_EQ(hex(mnl_nlmsg_get_payload(made.message), mnl_nlmsg_get_payload_len(made.message)), known.bytes)
            << known.line;
    }
}

TEST(NftablesRuleTest, WhatIsWrittenIsReadBack)
{
    for (const Recorded& known : recorded()) {
        const ebtables::Command command = ebtables::parseLine(known.line).commands.front();
        const RuleMessage made(command);
        const nftables::RuleView view = nftables::readRule(made.message);
        EXPECT_EQ(view.table, "filter");
        EXPECT_EQ(view.chain, command.chain);
        EXPECT_FALSE(view.isChainPolicy);
        nftables::Expressions expressions;
        ASSERT_TRUE(view.readExpressions(expressions));
        const std::optional<Rule> rule = nftables::decode(expressions);
        ASSERT_TRUE(rule) << known.line;
        EXPECT_EQ(*rule, command.rule) << known.line;
    }
}

TEST(NftablesRuleTest, AChainsPolicyIsKnownByItsMark)
{
    nftables::Batch batch(7);
    batch.addChainPolicy("A", "DROP");
    EXPECT_TRUE(nftables::readRule(firstChange(batch.finish(1))).isChainPolicy);
}

// Anything that the tool would not write for the rule that it looks like is nobody's to read.
TEST(NftablesRuleTest, WhatTheToolWouldNotWriteIsNotRead)
{
    const ebtables::Command command = ebtables::parseLine(recorded()[5].line).commands.front();
    nftables::Expressions good;
    nftables::encode(command.rule, good);
    ASSERT_TRUE(nftables::decode(good));
    for (std::size_t i = 0; i < good.list.size(); ++i) {
        for (const int change : {0, 1, 2, 3}) {
            nftables::Expressions bad = good;
            nftables::Expression& expression = bad.list[i];
            if (change == 0)
                expression.kind = nftables::ExpressionKind::Other;
            else if (change == 1)
                bad.list.erase(bad.list.begin() + static_cast<std::ptrdiff_t>(i));
            else if (change == 2)
                bad.list.insert(bad.list.begin() + static_cast<std::ptrdiff_t>(i), nftables::Expression());
            else
                expression.key ^= 0x40000000U;
            const std::optional<Rule> rule = nftables::decode(bad);
            EXPECT_NE(rule, std::optional(command.rule)) << "expression " << i << ", change " << change;
        }
    }
    nftables::Expressions jump;
    jump.list.resize(2);
    jump.list[0].kind = nftables::ExpressionKind::Counter;
    jump.list[1].kind = nftables::ExpressionKind::Verdict;
    jump.list[1].key = static_cast<std::uint32_t>(-3);
    for (const char* chain : {"two words", "", "-x", "ACCEPT"}) {
        jump.chain = chain;
        EXPECT_FALSE(nftables::decode(jump)) << chain;
    }
    jump.chain = "good";
    EXPECT_TRUE(nftables::decode(jump));
}

TEST(NftablesRuleTest, ALoadThatNothingLooksAtIsNoMatch)
{
    nftables::Expressions expressions;
    nftables::encode(Rule(), expressions);
    nftables::Expression load;
    load.kind = nftables::ExpressionKind::Meta;
    load.key = 6; // what `-i +` writes
    expressions.list.insert(expressions.list.begin(), load);
    EXPECT_EQ(nftables::decode(expressions), Rule());
}

TEST(NftablesRuleTest, CutMessagesAreReadWithinTheirBounds)
{
    for (const Recorded& known : recorded()) {
        const RuleMessage made(ebtables::parseLine(known.line).commands.front());
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(made.message);
        for (std::uint32_t length = sizeof(nlmsghdr) + 4; length <= made.message->nlmsg_len; length += 4) {
            std::vector<std::uint32_t> copy(length / 4);
            std::memcpy(copy.data(), bytes, length);
            auto* const message = reinterpret_cast<nlmsghdr*>(copy.data());
            message->nlmsg_len = length;
            nftables::Expressions expressions;
            if (nftables::readRule(message).readExpressions(expressions))
                nftables::decode(expressions);
        }
    }
}

TEST(NftablesBatchTest, NamesTheGenerationAndNumbersItsMessages)
{
    nftables::Batch batch(0x01020304U);
    EXPECT_EQ(batch.addBuiltInChain("FORWARD", "DROP"), 0U);
    EXPECT_EQ(batch.addChain("A"), 1U);
    const nftables::Bytes bytes = batch.finish(100);
    EXPECT_EQ(hex(bytes.data() + 20, 8), "0800010001020304");
    int left = static_cast<int>(bytes.size());
    std::uint32_t sequence = 100;
    unsigned acknowledged = 0;
    for (const auto* message = reinterpret_cast<const nlmsghdr*>(bytes.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
        EXPECT_EQ(message->nlmsg_seq, sequence++);
        acknowledged += (message->nlmsg_flags & NLM_F_ACK) != 0 ? 1 : 0;
    }
    EXPECT_EQ(sequence, 100 + batch.sequenceNumbers() + 0U);
    EXPECT_EQ(acknowledged, 1U) << "errors come without being asked for";
}

TEST(NftablesGenerationTest, AMessageIsReadAndNonsenseIsNot)
{
    alignas(8) const unsigned char message[] = {0x38, 0, 0,   0,   0x0f, 0x0a, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0, 0, 0,
                                                5,    8, 0,   1,   0,    0,    0, 1, 2, 8, 0, 2, 0, 0, 0, 0x10, 1, 8, 0,
                                                3,    0, 'n', 'f', 't',  0,    8, 0, 9, 0, 0, 0, 0, 0, 4, 0,    8, 0};
    const auto change = nftables::readGenerationChange(message, sizeof message);
    ASSERT_TRUE(change);
    EXPECT_EQ(change->generation, 0x102U);
    EXPECT_EQ(change->process, 0x1001U);
    EXPECT_EQ(change->program, "nft");
    for (std::size_t size = 0; size < sizeof message; ++size)
        EXPECT_FALSE(nftables::readGenerationChange(message, size)) << size;
}

} // namespace
