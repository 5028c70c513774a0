// The way into the command queue: whose chains a line may touch.
#include "platform_linux/queue/line_gate.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

using ebtables::OwnChains;
using testing::HasSubstr;
using zol::cfg::Gate;

const std::string chain = "1abmacblacklist";
const std::string make = "ebtables -N " + chain + "; ebtables -P " + chain + " RETURN";
const std::string jump =
    "ebtables -I FORWARD 1 -i a -o b -j " + chain + ";ebtables -I FORWARD 1 -o a -i b -j " + chain + ";";
const std::string unjump =
    "ebtables -D FORWARD -i a -o b -j " + chain + ";ebtables -D FORWARD -o a -i b -j " + chain + ";";
const std::string fill = "ebtables -A " + chain + " -s 0:0:0:0:0:1 -j DROP";
const std::string empty = "ebtables -F " + chain + "; ebtables -X " + chain;

bool passes(Gate& gate, const std::string& line)
{
    const ebtables::ParsedLine parsed = gate.take(line);
    EXPECT_EQ(parsed.error.has_value(), parsed.commands.empty());
    return !parsed.error.has_value();
}

TEST(GateTest, AFiltersChainIsOursFromItsMakingToItsEnd)
{
    Gate gate(false);
    for (const std::string& line : {jump, unjump, fill, empty})
        EXPECT_FALSE(passes(gate, line)) << line;
    EXPECT_TRUE(passes(gate, make));
    for (const std::string& line : {jump, fill, unjump, empty})
        EXPECT_TRUE(passes(gate, line)) << line;
    EXPECT_TRUE(passes(gate, unjump)) << "another filter may have a chain of this name, so that it stays";
    gate.settle(OwnChains());
    for (const std::string& line : {jump, unjump, fill, empty})
        EXPECT_FALSE(passes(gate, line)) << line;
    EXPECT_THAT(gate.take(fill).error->text(),
                HasSubstr("\"" + chain + "\": expected a chain that this process has made"));
}

TEST(GateTest, WhatTurnedOutToBeSomebodyElsesIsNotOurs)
{
    Gate gate(false);
    EXPECT_TRUE(passes(gate, make));
    gate.settle(OwnChains({"UserInputRules"}));
    EXPECT_FALSE(passes(gate, fill));
    EXPECT_FALSE(passes(gate, empty));
    gate.settle(OwnChains({"UserInputRules", chain}));
    EXPECT_TRUE(passes(gate, fill));
}

TEST(GateTest, TheFourChainsAreOursByTheirNames)
{
    Gate gate(false);
    EXPECT_TRUE(passes(gate, "ebtables -F UserInputRules"));
    EXPECT_TRUE(passes(gate, "ebtables -X UserForwardPolicy"));
}

TEST(GateTest, OnlyTheFormsOfTheHandlerUnlessAnyIsAsked)
{
    Gate narrow(false);
    Gate wide(true);
    EXPECT_FALSE(passes(narrow, "ebtables -A OUTPUT -i eth0 -j DROP"));
    EXPECT_FALSE(passes(wide, "ebtables -A OUTPUT -i eth0 -j DROP")) << "no form of ebtables";
    EXPECT_FALSE(passes(narrow, "ebtables -A OUTPUT -o eth0 -j DROP"));
    EXPECT_TRUE(passes(wide, "ebtables -A OUTPUT -o eth0 -j DROP"));
    EXPECT_TRUE(passes(wide, fill));
}

TEST(OwnChainsTest, FollowsWhatIsCarriedOut)
{
    OwnChains own;
    const auto commands = [](const std::string& line) { return ebtables::parseLine(line).commands; };
    EXPECT_TRUE(own.mayCarryOut(commands(make)[0]));
    EXPECT_FALSE(own.mayCarryOut(commands(make)[1])) << "it was not made";
    EXPECT_FALSE(own.mayCarryOut(commands(jump)[0]));
    own.note(commands(make)[0]);
    EXPECT_TRUE(own.mayCarryOut(commands(make)[1]));
    EXPECT_TRUE(own.mayCarryOut(commands(jump)[0]));
    own.note(commands(empty)[1]);
    EXPECT_FALSE(own.mayCarryOut(commands(unjump)[0]));
    EXPECT_TRUE(own.mayCarryOut(commands("ebtables -F UserInputRules")[0]));
}

} // namespace
