#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

using ebtables::Command;
using ebtables::Table;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

const char* const saved = "*filter\n"
                          ":INPUT ACCEPT\n"
                          ":FORWARD ACCEPT\n"
                          ":OUTPUT ACCEPT\n"
                          ":Own RETURN\n"
                          ":Foreign RETURN\n"
                          "-A INPUT -j Own\n"
                          "-A FORWARD -i eth0 -j DROP\n"
                          "-A Foreign --among-src 02:00:00:00:00:01, -j DROP\n"
                          "-A Foreign --among-src 02:00:00:00:00:02, -j Own\n";

std::vector<Command> commands(const std::string& lines)
{
    std::string line = lines;
    std::ranges::replace(line, '\n', ';');
    ebtables::ParsedLine parsed = ebtables::parseLine(line);
    EXPECT_FALSE(parsed.error) << lines << ": " << parsed.error->text();
    return parsed.commands;
}

// The reasons, "" for a command that is taken.
std::vector<std::string> foretell(const std::string& lines, const std::vector<bool>& skip = {})
{
    std::vector<std::string> reasons;
    for (const auto& reason : ebtables::foretell(ebtables::parseSaved(saved), commands(lines), skip))
        reasons.push_back(reason.value_or(""));
    return reasons;
}

constexpr const char* noChain = "No chain/target/match by that name.";

TEST(ModelTest, ChainsAreMadeOnce)
{
    EXPECT_THAT(foretell("ebtables -N New; ebtables -N New; ebtables -N Own"),
                ElementsAre("", "Chain already exists.", "Chain already exists."));
}

TEST(ModelTest, NothingIsDoneWithAChainThatIsNotThere)
{
    EXPECT_THAT(foretell("ebtables -A No -i eth0 -j DROP; ebtables -I No 1 -i eth0 -j DROP; ebtables -F No; "
                         "ebtables -D No -i eth0 -j DROP; ebtables -X No; ebtables -P No DROP"),
                ElementsAre(noChain, noChain, noChain, noChain, noChain, noChain));
    EXPECT_THAT(foretell("ebtables -X Own; ebtables -D INPUT -j Own; ebtables -F Foreign; ebtables -X Own; "
                         "ebtables -P Own DROP"),
                ElementsAre(HasSubstr("busy"), "", "", "", noChain));
}

TEST(ModelTest, AChainThatIsJumpedToStays)
{
    EXPECT_THAT(foretell("ebtables -N New; ebtables -A FORWARD -i eth1 -j New; ebtables -X New; "
                         "ebtables -D FORWARD -i eth1 -j New; ebtables -X New"),
                ElementsAre("", "", HasSubstr("busy"), "", ""));
    EXPECT_THAT(foretell("ebtables -N New; ebtables -A INPUT -j New; ebtables -F INPUT; ebtables -X New"),
                ElementsAre("", "", "", ""));
    // The jump goes with the chain that holds it.
    EXPECT_THAT(foretell("ebtables -N A; ebtables -N B; ebtables -A A -j B; ebtables -X A; ebtables -X B"),
                ElementsAre("", "", "", "", ""));
    // Its own rules do not hold it.
    EXPECT_THAT(foretell("ebtables -N New; ebtables -A New -i eth0 -j New; ebtables -X New"), ElementsAre("", "", ""));
}

TEST(ModelTest, JumpsNeedTheirChain)
{
    EXPECT_THAT(foretell("ebtables -A INPUT -j No; ebtables -N No; ebtables -A INPUT -j No"),
                ElementsAre("Chain 'No' does not exist", "", ""));
}

TEST(ModelTest, InsertionsNeedAPlace)
{
    EXPECT_THAT(foretell("ebtables -I FORWARD 2 -i eth1 -j DROP; ebtables -I FORWARD 4 -i eth1 -j DROP; "
                         "ebtables -I FORWARD 3 -i eth1 -j DROP; ebtables -I Own 1 -i eth1 -j DROP"),
                ElementsAre("", "Index of insertion too big.", "", ""));
}

TEST(ModelTest, ARuleIsDeletedOnceForEachTimeItIsThere)
{
    EXPECT_THAT(foretell("ebtables -D FORWARD -i eth0 -j DROP; ebtables -D FORWARD -i eth0 -j DROP"),
                ElementsAre("", HasSubstr("Bad rule")));
    EXPECT_THAT(foretell("ebtables -A FORWARD -i eth0 -j DROP; ebtables -D FORWARD -i eth0 -j DROP; "
                         "ebtables -D FORWARD -i eth0 -j DROP; ebtables -D FORWARD -i eth0 -j DROP"),
                ElementsAre("", "", "", HasSubstr("Bad rule")));
    EXPECT_THAT(foretell("ebtables -F FORWARD; ebtables -D FORWARD -i eth0 -j DROP"),
                ElementsAre("", HasSubstr("Bad rule")));
    EXPECT_THAT(foretell("ebtables -D FORWARD -i eth0 -j ACCEPT"), ElementsAre(HasSubstr("Bad rule")));
}

TEST(ModelTest, InDoubtACommandIsTaken)
{
    // One of the rules there has parts that are unknown here: it might be the one.
    EXPECT_THAT(foretell("ebtables -D Foreign -i eth0 -j DROP"), ElementsAre(""));
    // And it may jump.
    EXPECT_THAT(foretell("ebtables -D INPUT -j Own; ebtables -X Own"), ElementsAre("", HasSubstr("busy")));
}

TEST(ModelTest, WhatIsLeftOutHasNoEffect)
{
    const std::string lines = "ebtables -N New; ebtables -A New -i eth0 -j DROP; ebtables -F FORWARD";
    EXPECT_THAT(foretell(lines, {true, false, true}), ElementsAre("", noChain, ""));
    EXPECT_THAT(foretell(lines, {false}), ElementsAre("", "", "")) << "a short list leaves out none of the rest";
}

TEST(ModelTest, NoCommandsNoReasons)
{
    EXPECT_THAT(ebtables::foretell(Table(), {}, {}), IsEmpty());
}

} // namespace
