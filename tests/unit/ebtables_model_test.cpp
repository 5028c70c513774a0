#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

using ebtables::Command;
using testing::ElementsAre;
using testing::HasSubstr;

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
std::vector<std::string> foretell(const std::string& lines)
{
    ebtables::TableModel model(ebtables::parseSaved(saved));
    std::vector<std::string> reasons;
    for (const Command& command : commands(lines))
        reasons.push_back(model.apply(command).value_or(""));
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

TEST(ModelTest, TheTableIsWhatTheCommandsMakeOfIt)
{
    ebtables::TableModel model;
    EXPECT_EQ(model.table().chains.size(), 3U);
    ebtables::Origin origin = 0;
    for (const Command& command :
         commands("ebtables -N A; ebtables -N B; ebtables -P B DROP; ebtables -A INPUT -i eth0 -j B; "
                  "ebtables -I INPUT 1 -i eth1 -j ACCEPT; ebtables -A B -i eth2 -j DROP; ebtables -X A; "
                  "ebtables -A FORWARD -i eth3 -j DROP; ebtables -D FORWARD -i eth3 -j DROP"))
        ASSERT_FALSE(model.apply(command, ++origin));
    std::vector<std::string> lines;
    for (const ebtables::Chain& chain : model.table().chains) {
        lines.push_back(chain.name + ' ' + chain.policy + ' ' + std::to_string(chain.policyOrigin));
        for (const ebtables::TableRule& rule : chain.rules)
            lines.push_back(toText(*rule.rule) + ' ' + std::to_string(rule.origin));
    }
    EXPECT_THAT(lines, ElementsAre("INPUT ACCEPT 0", "-i eth1 -j ACCEPT 5", "-i eth0 -j B 4", "FORWARD ACCEPT 0",
                                   "OUTPUT ACCEPT 0", "B DROP 3", "-i eth2 -j DROP 6"));
    // Chains are still found after one in front of them has gone.
    EXPECT_FALSE(model.apply(commands("ebtables -A B -i eth4 -j DROP").front()));
    EXPECT_EQ(model.table().find("B")->rules.size(), 2U);
}

} // namespace
