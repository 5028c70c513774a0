#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/trial.hpp"
#include "tests/unit/scripted_tool.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

using ebtables::Command;
using ebtables::Refused;
using ebtables::Trial;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

class TrialTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0)
            GTEST_SKIP() << "no network namespace can be made here";
    }

    // The commands, of which those numbered in `listed` were named by the tool.
    Trial trial(const std::string& lines, const std::vector<std::size_t>& listed) const
    {
        const ebtables::ParsedLine parsed = ebtables::parseLine(lines);
        EXPECT_FALSE(parsed.error) << parsed.error->text();
        std::vector<bool> done(parsed.commands.size(), false);
        std::vector<Refused> refused;
        for (const std::size_t index : listed) {
            refused.push_back({index, "no"});
            done[index] = true;
        }
        return ebtables::tryElsewhere(m_tool.paths(), parsed.commands, refused, done);
    }
    static std::vector<std::size_t> indexes(const Trial& trial)
    {
        std::vector<std::size_t> found;
        for (const Refused& refused : trial.refused)
            found.push_back(refused.index);
        std::ranges::sort(found);
        return found;
    }

    ScriptedTool m_tool;
};

const char* const lines = "ebtables -N U; ebtables -A U -i bad1 -j DROP; ebtables -I U 1 -i bad2 -j V; "
                          "ebtables -D U -i bad3 -j DROP; ebtables -A U -i eth0 -j DROP; "
                          "ebtables -A U -i bad4 -s 02:00:00:00:00:01 -j DROP; ebtables -A U -i bad5 -j DROP";

TEST_F(TrialTest, RulesLikeThoseThatWereRefusedAreTriedInAChainOfTheirOwn)
{
    trial(lines, {1});
    EXPECT_THAT(m_tool.inputs(), ElementsAre("*filter\n-N T\n-A T -i bad2 -j CONTINUE\n-A T -i eth0 -j DROP\n"
                                             "-A T -i bad5 -j DROP\nCOMMIT\n"));
}

TEST_F(TrialTest, WhatTheKernelNamesIsRefused)
{
    m_tool.onRestore(R"(awk '/bad/ { print "line " NR ": RULE_APPEND failed (Invalid argument): rule in chain T" }' \
                         "$input" >&2; exit 4)");
    const Trial found = trial(lines, {1});
    EXPECT_THAT(indexes(found), ElementsAre(2U, 6U));
    EXPECT_EQ(found.processes, 1U);
    EXPECT_EQ(found.refused[0].reason, "RULE_APPEND failed (Invalid argument): rule in chain T");
}

TEST_F(TrialTest, WhatAFullListLeavesOutIsTriedAgain)
{
    // As the tool does: of more than sixteen the first fifteen and the last one, and the beginning of another line.
    m_tool.onRestore(R"(awk '/bad/ { refused[n++] = NR }
        END { for (i = 0; i < n; ++i)
                  if (n < 17 || i < 15 || i == n - 1)
                      print "line " refused[i] ": RULE_APPEND failed (Invalid argument): rule in chain T"
              if (n > 16) printf "line " }' "$input" >&2; exit 4)");
    std::string many;
    std::vector<std::size_t> bad;
    constexpr std::size_t seen = 41; // two of so many were refused: the rest shares one block
    for (std::size_t i = 0; i < 120; ++i) {
        const bool isBad = i == 0 || i == seen - 1 || (i > seen && i % 3 != 0) || i == 119;
        many += std::string("ebtables -A U -i ") + (isBad ? "bad" : "eth") + std::to_string(i) + " -j DROP;";
        if (isBad && i >= seen && i != 119)
            bad.push_back(i);
    }
    const Trial found = trial(many, {0, seen - 1, 119});
    EXPECT_THAT(indexes(found), ElementsAreArray(bad));
    EXPECT_LT(found.processes, 6U);
}

TEST_F(TrialTest, FailuresOfOtherKindsSayNothingOfTheRules)
{
    for (const char* end : {"echo 'line 2: RULE_APPEND failed (Cannot allocate memory): rule in chain T' >&2; exit 4",
                            "echo 'line 3: RULE_APPEND failed' >&2; exit 1", "kill -9 $$", "exit 4",
                            "echo 'line 99: RULE_APPEND failed' >&2; exit 4",
                            "echo 'line 2: CHAIN_ADD failed (File exists): chain T' >&2; exit 4"}) {
        m_tool.onRestore(end);
        EXPECT_THAT(trial(lines, {1}).refused, IsEmpty()) << end;
    }
}

TEST_F(TrialTest, ItIsANetworkOfItsOwn)
{
    const std::string file = m_tool.folder().path("namespace");
    m_tool.onRestore("readlink /proc/self/ns/net > " + file);
    trial(lines, {1});
    char own[64] = {};
    ASSERT_GT(readlink("/proc/self/ns/net", own, sizeof own - 1), 0);
    EXPECT_THAT(m_tool.folder().read("namespace"), HasSubstr("net:["));
    EXPECT_THAT(m_tool.folder().read("namespace"), Not(HasSubstr(own)));
}

TEST_F(TrialTest, WithoutRulesToTryNothingIsStarted)
{
    EXPECT_EQ(trial("ebtables -A U -i eth0 -j DROP; ebtables -N U; ebtables -F U", {0}).processes, 0U);
    EXPECT_THAT(m_tool.inputs(), IsEmpty());
}

} // namespace
