#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/transaction.hpp"
#include "tests/unit/scripted_tool.hpp"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ebtables::Command;
using ebtables::Outcome;
using ebtables::Refused;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using namespace std::chrono_literals;

namespace ebtables
{

bool operator==(const Refused& one, const Refused& other)
{
    return one.index == other.index && one.reason == other.reason;
}

void PrintTo(const Refused& refused, std::ostream* out)
{
    *out << refused.index << ": " << refused.reason;
}

} // namespace ebtables

namespace
{

const char* const wellMeant = "*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n:U RETURN\n-A INPUT -j U\n";

// What the kernel does with rules for the interface "bad": it lists them in a buffer of limited size.
const char* const kernelRefuses = R"(awk '
    / -i bad/ { list = list "line " NR ": RULE_APPEND failed (Invalid argument): rule in chain U\n" }
    END { if (list == "") exit 0
          if (length(list) > 1022) list = substr(list, 1, 1022)
          print "ebtables-restore v1.8.9 (nf_tables): " > "/dev/stderr"
          printf "%s", list > "/dev/stderr"
          exit 4 }' "$input")";

class TransactionTest : public testing::Test
{
protected:
    TransactionTest() { m_tool.onSave(std::string("cat <<'EOF'\n") + wellMeant + "EOF"); }

    static std::vector<Command> commands(const std::string& lines)
    {
        ebtables::ParsedLine parsed = ebtables::parseLine(lines);
        EXPECT_FALSE(parsed.error) << lines << ": " << parsed.error->text();
        return parsed.commands;
    }
    Outcome apply(const std::string& lines, const ebtables::RunLimits& limits = {}) const
    {
        return ebtables::applyTransaction(m_tool.paths(), commands(lines), {}, limits);
    }
    static std::string block(const std::string& lines) { return "*filter\n" + lines + "COMMIT\n"; }

    ScriptedTool m_tool;
};

const char* const threeRules =
    "ebtables -A U -i eth0 -j DROP; ebtables -A U -i bad -j DROP; ebtables -A U -i eth1 -j DROP";

TEST_F(TransactionTest, AllCommandsInOneProcess)
{
    const Outcome outcome = apply("ebtables -N U; ebtables -P U RETURN; ebtables -I FORWARD 1 -p IPv4 -j U; "
                                  "ebtables -D INPUT -i eth0 -j DROP; ebtables -F INPUT; ebtables -P FORWARD DROP");
    EXPECT_FALSE(outcome.cannotRun);
    EXPECT_EQ(outcome.done, 6U);
    EXPECT_EQ(outcome.processes, 1U);
    EXPECT_EQ(outcome.notAtomic, "");
    EXPECT_THAT(outcome.refused, IsEmpty());
    EXPECT_THAT(m_tool.inputs(), ElementsAre(block("-N U\n-P U RETURN\n-I FORWARD 1 -p 0x0800 -j U\n"
                                                   "-D INPUT -i eth0 -j DROP\n-F INPUT\n-P FORWARD DROP\n")));
}

TEST_F(TransactionTest, NothingToDoStartsNothing)
{
    const Outcome outcome = apply("");
    EXPECT_EQ(outcome.done, 0U);
    EXPECT_EQ(outcome.processes, 0U);
    EXPECT_THAT(m_tool.inputs(), IsEmpty());
}

TEST_F(TransactionTest, AChainIsEmptiedBeforeItIsDeleted)
{
    apply("ebtables -X U");
    EXPECT_THAT(m_tool.inputs(), ElementsAre(block("-F U\n-X U\n")));
}

TEST_F(TransactionTest, AChainThatIsMadeAndDeletedTakesTwoTransactions)
{
    const Outcome outcome =
        apply("ebtables -N U; ebtables -A INPUT -j U; ebtables -D INPUT -j U; ebtables -X U; ebtables -N U");
    EXPECT_EQ(outcome.done, 5U);
    EXPECT_THAT(m_tool.inputs(),
                ElementsAre(block("-N U\n-A INPUT -j U\n-D INPUT -j U\n"), block("-F U\n-X U\n-N U\n")));
}

TEST_F(TransactionTest, WhatTheKernelRefusesIsLeftOut)
{
    m_tool.onRestore(kernelRefuses);
    const Outcome outcome = apply(threeRules);
    EXPECT_FALSE(outcome.cannotRun);
    EXPECT_EQ(outcome.done, 3U);
    EXPECT_THAT(outcome.refused, ElementsAre(Refused{1, "RULE_APPEND failed (Invalid argument): rule in chain U"}));
    EXPECT_EQ(m_tool.inputs().back(), block("-A U -i eth0 -j DROP\n-A U -i eth1 -j DROP\n"));
}

TEST_F(TransactionTest, OfManyRefusalsAllAreFoundAndNothingElseIsLost)
{
    m_tool.onRestore(kernelRefuses);
    std::vector<Command> all;
    std::string good;
    for (int i = 0; i < 400; ++i) {
        const bool bad = i % 10 == 3;
        const std::string rule = "-A U -i " + std::string(bad ? "bad" : "eth") + std::to_string(i) + " -j DROP";
        all.push_back(commands("ebtables " + rule).front());
        good += bad ? "" : rule + '\n';
    }
    const Outcome outcome = ebtables::applyTransaction(m_tool.paths(), all, {});
    EXPECT_EQ(outcome.done, 400U);
    EXPECT_EQ(outcome.notAtomic, "");
    ASSERT_THAT(outcome.refused, SizeIs(40));
    for (std::size_t i = 0; i < 40; ++i)
        EXPECT_EQ(outcome.refused[i].index, 10 * i + 3);
    EXPECT_EQ(m_tool.inputs().back(), block(good));
    EXPECT_LT(outcome.processes, 40U);
}

TEST_F(TransactionTest, WhatTheParserRefusesIsLeftOut)
{
    m_tool.onRestore(R"(grep -q bad "$input" || exit 0
        { echo "ebtables-restore v1.8.9 (nf_tables): Bad interface"; echo "Error occurred at line: 3"; } >&2; exit 2)");
    const Outcome outcome = apply(threeRules);
    EXPECT_THAT(outcome.refused, ElementsAre(Refused{1, "Bad interface"}));
    EXPECT_EQ(m_tool.inputs().back(), block("-A U -i eth0 -j DROP\n-A U -i eth1 -j DROP\n"));
}

TEST_F(TransactionTest, WhatTheTablesExplainIsLeftOutAtOnce)
{
    // The tool names one at a time.
    m_tool.onRestore(R"(line=$(grep -n -m1 -e "^-D U" "$input") || exit 0
        echo "ebtables-restore: line ${line%%:*} failed: Bad rule." >&2; exit 1)");
    std::string lines = "ebtables -A U -i eth0 -j DROP";
    for (int i = 0; i < 30; ++i)
        lines += "; ebtables -D U -i gone" + std::to_string(i) + " -j DROP";
    const Outcome outcome = apply(lines);
    EXPECT_THAT(outcome.refused, SizeIs(30));
    EXPECT_THAT(outcome.refused.front().reason, StartsWith("Bad rule"));
    EXPECT_EQ(outcome.processes, 3U) << "the first try, a look at the tables, the second try";
    EXPECT_THAT(m_tool.inputs(), SizeIs(2));
    EXPECT_EQ(m_tool.inputs().back(), block("-A U -i eth0 -j DROP\n"));
}

TEST_F(TransactionTest, AJumpToNowhereIsFoundThoughTheToolNamesTheLastLine)
{
    m_tool.onRestore(R"(grep -q "j Nowhere" "$input" || exit 0
        echo "ebtables-restore: line $(wc -l < "$input") failed: Chain 'Nowhere' does not exist" >&2; exit 1)");
    const char* const lines = "ebtables -A U -i eth0 -j DROP; ebtables -A U -i eth1 -j Nowhere; "
                              "ebtables -I U 1 -i eth2 -j Nowhere; ebtables -F INPUT";
    for (const bool tablesAreKnown : {true, false}) {
        if (!tablesAreKnown)
            m_tool.onSave("exit 1");
        const Outcome outcome = apply(lines);
        EXPECT_THAT(outcome.refused, ElementsAre(Refused{1, "Chain 'Nowhere' does not exist"},
                                                 Refused{2, "Chain 'Nowhere' does not exist"}));
        EXPECT_EQ(m_tool.inputs().back(), block("-A U -i eth0 -j DROP\n-F INPUT\n"));
        EXPECT_EQ(outcome.notAtomic, "");
    }
}

TEST_F(TransactionTest, WhatFollowsFromABusyChainIsNotRefusedForIt)
{
    // The tool takes the chain for gone, and misses it for the rule. That it stays is noticed by the kernel, later.
    m_tool.onRestore(R"(grep -q -e "-X U" "$input" || exit 0
        echo "line 4: RULE_APPEND failed (No such file or directory): rule in chain U" >&2; exit 4)");
    const Outcome outcome = apply("ebtables -X U; ebtables -A U -i eth0 -j DROP");
    EXPECT_THAT(outcome.refused,
                ElementsAre(Refused{0, "CHAIN_DEL failed (Device or resource busy): a rule jumps to the chain"}));
    EXPECT_EQ(m_tool.inputs().back(), block("-A U -i eth0 -j DROP\n"));
}

TEST_F(TransactionTest, WhatTheToolDoesNotExplainIsTriedOneByOne)
{
    m_tool.onRestore(R"([ $(wc -l < "$input") -le 3 ] || { echo "no idea" >&2; exit 1; }
        grep -q bad "$input" && { echo "not this one" >&2; exit 1; }
        exit 0)");
    const Outcome outcome = apply(threeRules);
    EXPECT_FALSE(outcome.cannotRun);
    EXPECT_EQ(outcome.done, 3U);
    EXPECT_EQ(outcome.notAtomic, "no idea");
    EXPECT_THAT(outcome.refused, ElementsAre(Refused{1, "not this one"}));
    EXPECT_THAT(m_tool.inputs(), ElementsAre(block("-A U -i eth0 -j DROP\n-A U -i bad -j DROP\n-A U -i eth1 -j DROP\n"),
                                             block(""), block("-A U -i eth0 -j DROP\n"), block("-A U -i bad -j DROP\n"),
                                             block("-A U -i eth1 -j DROP\n")));
}

TEST_F(TransactionTest, AToolThatFailsForReasonsOfItsOwnCannotRun)
{
    const struct {
        const char* script;
        const char* reason;
    } cases[] = {
        {"echo 'Could not fetch rule set generation id: Permission denied (you must be root)' >&2; exit 4",
         "ended with status 4: Could not fetch rule set generation id: Permission denied (you must be root); run as "
         "root or with CAP_NET_ADMIN"},
        {"echo 'ebtables-restore: Failed to initialize nft: Protocol not supported' >&2; exit 1",
         "ended with status 1: Failed to initialize nft: Protocol not supported; is the kernel built with nf_tables "
         "for bridges?"},
        {"exit 3", "ended with status 3: no message; is the kernel built with nf_tables for bridges?"},
        {"grep -q eth0 \"$input\" || exit 0 # no wrong rule, though a try without it succeeds\n"
         "echo 'line 2: RULE_APPEND failed (Cannot allocate memory): rule in chain U' >&2; exit 4",
         "ended with status 4: line 2: RULE_APPEND failed (Cannot allocate memory): rule in chain U; is there memory "
         "enough?"},
    };
    for (const auto& test : cases) {
        m_tool.onRestore(test.script);
        const Outcome outcome = apply(threeRules);
        EXPECT_TRUE(outcome.cannotRun);
        EXPECT_FALSE(outcome.stopped);
        EXPECT_EQ(outcome.done, 0U);
        EXPECT_THAT(outcome.refused, IsEmpty());
        EXPECT_EQ(outcome.reason, m_tool.paths().restore + ' ' + test.reason);
    }
}

TEST_F(TransactionTest, AToolThatDoesNotComeBackCannotRun)
{
    m_tool.onRestore("kill -9 $$");
    EXPECT_THAT(apply(threeRules).reason, HasSubstr("killed by signal 9"));
    m_tool.onRestore("exec sleep 1000");
    ebtables::RunLimits limits;
    limits.time = 30ms;
    EXPECT_THAT(apply(threeRules, limits).reason, HasSubstr("did not end within 30 ms"));
    m_tool.removeRestore();
    const Outcome outcome = apply(threeRules);
    EXPECT_THAT(outcome.reason, HasSubstr("No such file or directory"));
    EXPECT_TRUE(outcome.cannotRun);
    EXPECT_EQ(outcome.done, 0U);
}

TEST_F(TransactionTest, WhatIsDoneBeforeTheToolFailsIsNotDoneAgain)
{
    // One by one: the first goes in, the second is refused, at the third the tool has no memory.
    for (const char* const end : {"kill -9 $$", "{ echo 'Cannot allocate memory' >&2; exit 1; }"}) {
        m_tool.onRestore(std::string(R"([ $(wc -l < "$input") -le 3 ] || exit 1
            grep -q bad "$input" && exit 1
            grep -q eth1 "$input" && )") +
                         end + "\nexit 0");
        const Outcome outcome = apply(threeRules);
        EXPECT_TRUE(outcome.cannotRun);
        EXPECT_EQ(outcome.done, 2U);
        EXPECT_THAT(outcome.refused, ElementsAre(testing::Field(&Refused::index, 1)));
    }

    // In two transactions, the second of which finds no memory.
    m_tool.onRestore(
        R"(grep -q -e "-X U" "$input" || exit 0; echo "sendmsg() failed: No buffer space available" >&2; exit 1)");
    const Outcome two = apply("ebtables -N U; ebtables -A U -i eth0 -j DROP; ebtables -X U; ebtables -F INPUT");
    EXPECT_TRUE(two.cannotRun);
    EXPECT_EQ(two.done, 2U);
}

TEST_F(TransactionTest, OneByOneEveryCommandIsAProcess)
{
    m_tool.onVersion("for word in \"$@\"; do printf '[%s]' \"$word\"; done >> " + m_tool.folder().path("lines") +
                     "; echo >> " + m_tool.folder().path("lines"));
    const Outcome outcome = ebtables::applyOneByOne(
        m_tool.paths(),
        commands("ebtables -N U; ebtables -A U -i eth0 --log --log-prefix \"Moatkeeper denied: \" -j "
                 "DROP; ebtables -X U; ebtables -P INPUT DROP"),
        {});
    EXPECT_EQ(outcome.done, 4U);
    EXPECT_EQ(outcome.processes, 4U);
    EXPECT_EQ(m_tool.folder().read("lines"),
              "[-N][U]\n[-A][U][-i][eth0][--log-level][5][--log-prefix][Moatkeeper denied: ][-j][DROP]\n[-X][U]\n"
              "[-P][INPUT][DROP]\n");
}

TEST_F(TransactionTest, OneByOneARefusalCostsItselfOnly)
{
    m_tool.onVersion(
        R"(case "$*" in *bad*) echo "The kernel doesn't support it." >&2; exit 255;; *eth1*) exit 1;; esac)");
    const Outcome outcome = ebtables::applyOneByOne(m_tool.paths(), commands(threeRules), {});
    EXPECT_FALSE(outcome.cannotRun);
    EXPECT_EQ(outcome.done, 3U);
    EXPECT_THAT(outcome.refused,
                ElementsAre(Refused{1, "The kernel doesn't support it."}, Refused{2, "refused without a reason"}));
}

TEST_F(TransactionTest, OneByOneItGoesOnWhereTheToolFailed)
{
    const struct {
        const char* script;
        const char* reason;
    } cases[] = {{"kill -9 $$", "killed by signal 9"},
                 {"echo 'Operation not permitted.' >&2; exit 255", "not permitted.; run as root or with CAP_NET_ADMIN"},
                 {"echo 'Cannot allocate memory' >&2; exit 255", "Cannot allocate memory; is there memory enough?"}};
    for (const auto& test : cases) {
        m_tool.onVersion(std::string("case \"$*\" in *bad*) ") + test.script + ";; esac");
        const Outcome outcome = ebtables::applyOneByOne(m_tool.paths(), commands(threeRules), {});
        EXPECT_TRUE(outcome.cannotRun);
        EXPECT_EQ(outcome.done, 1U);
        EXPECT_THAT(outcome.refused, IsEmpty());
        EXPECT_THAT(outcome.reason, HasSubstr(test.reason));
    }
}

TEST_F(TransactionTest, TheTablesAreReadOrTheReasonIsSaid)
{
    const auto table = ebtables::readTable(m_tool.paths());
    ASSERT_TRUE(table);
    EXPECT_THAT(table->chains, SizeIs(4));
    std::string reason;
    m_tool.onSave("printf 'no\\033[2J' >&2; exit 3");
    EXPECT_FALSE(ebtables::readTable(m_tool.paths(), &reason));
    EXPECT_THAT(reason, EndsWith("ebtables-save ended with status 3: no\\x1b[2J"));
    m_tool.onSave("kill -9 $$");
    EXPECT_FALSE(ebtables::readTable(m_tool.paths(), &reason));
    EXPECT_THAT(reason, AllOf(HasSubstr("ebtables-save"), HasSubstr("killed by signal 9")));
}

} // namespace
