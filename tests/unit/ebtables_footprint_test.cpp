#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/footprint.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ebtables::Command;
using ebtables::Footprint;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

Footprint after(const std::string& line)
{
    const ebtables::ParsedLine parsed = ebtables::parseLine(line);
    EXPECT_FALSE(parsed.error) << line << ": " << parsed.error->text();
    Footprint footprint;
    for (const Command& command : parsed.commands)
        footprint.note(command);
    return footprint;
}

std::vector<std::string> undo(const Footprint& footprint, const std::string& saved)
{
    std::vector<std::string> lines;
    for (const Command& command : footprint.undo(ebtables::parseSaved(saved)))
        lines.push_back(ebtables::toText(command));
    return lines;
}

// Everything there is to a footprint: two chains, one of them filled, a jump twice, a rule of its own, a policy.
const char* const everything =
    "ebtables -N User; ebtables -N Other; ebtables -A User -i eth0 -j DROP; "
    "ebtables -A INPUT -j User; ebtables -I FORWARD 1 -i eth1 -j User; "
    "ebtables -I FORWARD 1 -i eth1 -j User; "
    "ebtables -A INPUT --log --log-prefix \"Moatkeeper denied: \" -j DROP; ebtables -P INPUT DROP";
const char* const inTable =
    "*filter\n:INPUT DROP\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n:User RETURN\n:Other RETURN\n"
    "-A INPUT -j User\n-A INPUT --log-level notice --log-prefix \"Moatkeeper denied: \" -j DROP\n"
    "-A FORWARD -i eth1 -j User\n-A FORWARD -i eth1 -j User\n-A FORWARD -i eth7 -j DROP\n"
    "-A User -i eth0 -j DROP\n";

TEST(FootprintTest, WhatIsUndoneLeavesNothing)
{
    EXPECT_TRUE(Footprint().empty());
    EXPECT_TRUE(after("ebtables -N User; ebtables -A User -i eth0 -j DROP; ebtables -X User").empty());
    EXPECT_TRUE(after("ebtables -A INPUT -i eth0 -j DROP; ebtables -D INPUT -i eth0 -j DROP").empty());
    EXPECT_TRUE(after("ebtables -A INPUT -i eth0 -j DROP; ebtables -F INPUT").empty());
    EXPECT_TRUE(after("ebtables -P INPUT DROP; ebtables -P INPUT ACCEPT").empty());
    EXPECT_TRUE(after("ebtables -D INPUT -i eth0 -j DROP; ebtables -X Foreign; ebtables -F FORWARD").empty());
    EXPECT_TRUE(after("ebtables -P Foreign DROP").empty()) << "policies of user chains go with them";
    for (const char* left : {"ebtables -N User", "ebtables -A INPUT -i eth0 -j DROP", "ebtables -P INPUT DROP",
                             "ebtables -A INPUT -i eth0 -j DROP; ebtables -D INPUT -i eth1 -j DROP"})
        EXPECT_FALSE(after(left).empty()) << left;
}

TEST(FootprintTest, UndoingTakesOutWhatIsThere)
{
    EXPECT_THAT(undo(after(everything), inTable),
                ElementsAre("-D FORWARD -i eth1 -j User", "-D FORWARD -i eth1 -j User",
                            "-D INPUT --log-level 5 --log-prefix \"Moatkeeper denied: \" -j DROP", "-D INPUT -j User",
                            "-F Other", "-F User", "-X Other", "-X User", "-P INPUT ACCEPT"));
}

TEST(FootprintTest, UndoingLeavesAloneWhatIsNotThereOrNotOurs)
{
    EXPECT_THAT(undo(after(everything), ""), ElementsAre("-P INPUT ACCEPT"));
    EXPECT_THAT(undo(after("ebtables -N User; ebtables -A INPUT -j User; ebtables -A Gone -i eth0 -j DROP"),
                     "*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n:Theirs RETURN\n"
                     "-A INPUT -j Theirs\n-A FORWARD -j Theirs\n"),
                IsEmpty());
    // One of two equal jumps is ours.
    EXPECT_THAT(undo(after("ebtables -A FORWARD -i eth1 -j User"), inTable), ElementsAre("-D FORWARD -i eth1 -j User"));
}

TEST(FootprintTest, UnitedItHasRulesAsOftenAsTheOneWithMore)
{
    Footprint one = after("ebtables -N A; ebtables -A INPUT -i eth0 -j DROP; ebtables -P INPUT DROP");
    one.unite(after("ebtables -N B; ebtables -A INPUT -i eth0 -j DROP; ebtables -A INPUT -i eth0 -j DROP; "
                    "ebtables -P FORWARD DROP"));
    EXPECT_EQ(one, after("ebtables -N A; ebtables -N B; ebtables -A INPUT -i eth0 -j DROP; "
                         "ebtables -A INPUT -i eth0 -j DROP; ebtables -P INPUT DROP; ebtables -P FORWARD DROP"));
    const Footprint before = one;
    one.unite(Footprint());
    EXPECT_EQ(one, before);
}

TEST(FootprintTest, TextAndBack)
{
    for (const char* lines : {"", everything}) {
        const Footprint footprint = after(lines);
        std::string reason;
        const std::optional<Footprint> read = Footprint::fromText(footprint.toText("4:1"), "4:1", reason);
        ASSERT_TRUE(read) << reason;
        EXPECT_EQ(*read, footprint);
        EXPECT_EQ(reason, "");
    }
}

TEST(FootprintTest, ATextThatIsCutOrChangedAtAnyByteIsDamaged)
{
    const std::string text = after(everything).toText("4:1");
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string reason;
        EXPECT_FALSE(Footprint::fromText(text.substr(0, i), "4:1", reason)) << "cut at " << i;
        EXPECT_THAT(reason, StartsWith("damaged: ")) << "cut at " << i;
        for (const int change : {1, 32, 127}) {
            std::string changed = text;
            changed[i] = static_cast<char>(changed[i] ^ change);
            reason.clear();
            EXPECT_FALSE(Footprint::fromText(changed, "4:1", reason)) << "changed at " << i;
            EXPECT_THAT(reason, StartsWith("damaged: ")) << "changed at " << i;
        }
    }
    std::string reason;
    EXPECT_FALSE(Footprint::fromText(text + "\n", "4:1", reason));
    EXPECT_FALSE(Footprint::fromText(text + text, "4:1", reason));
}

TEST(FootprintTest, ATextOfAnotherNamespaceIsForeign)
{
    std::string reason;
    EXPECT_FALSE(Footprint::fromText(after(everything).toText("4:2"), "4:1", reason));
    EXPECT_EQ(reason, "from another network namespace");
}

// The text of a footprint with these lines in it and a checksum that fits.
std::string forged(const std::string& lines)
{
    // The checksum is taken over all that stands before it, so the namespace can carry any lines.
    return Footprint().toText("4:1\n" + lines);
}

TEST(FootprintTest, LinesThatItDoesNotWriteAreDamageWithARightChecksumToo)
{
    std::string reason;
    ASSERT_TRUE(Footprint::fromText(forged("chain User\npolicy INPUT\nrule INPUT -i eth0 -j User"), "4:1", reason))
        << reason;
    for (const char* line :
         {"chain INPUT", "chain ", "chain", "chain a-name-with;semicolon", "policy User", "rule INPUT --colour red",
          "rule INPUT -i eth0 -j DROP; -F INPUT", "command -F INPUT", " chain User", "chains User", "\x1b[2J"}) {
        reason.clear();
        EXPECT_FALSE(Footprint::fromText(forged(line), "4:1", reason)) << line;
        EXPECT_THAT(reason, HasSubstr("damaged: ")) << line;
        EXPECT_EQ(reason.find('\x1b'), std::string::npos);
    }
}

} // namespace
