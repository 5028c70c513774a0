#include "ebtables/line_parser.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/record_file.hpp"
#include "platform_linux/queue/transaction_queue.hpp"
#include "tests/unit/captured_descriptor.hpp"
#include "tests/unit/scripted_tool.hpp"

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <numeric>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using zol::cfg::TransactionQueue;
using zol::cfg::TransactionQueueOptions;
using namespace std::chrono_literals;

namespace
{

class TransactionQueueTest : public testing::Test
{
protected:
    TransactionQueueTest()
    {
        ZOL_Sysloglevel_construct2("", "moatkeeper");
        ZOL_Sysloglevel_set(0);
    }

    TransactionQueueOptions options() const
    {
        TransactionQueueOptions options;
        options.tools = m_tool.paths();
        options.recordFolder = m_tool.folder().path("record");
        options.anyForm = true; // what passes the gate is not the matter here
        options.firstPause = m_firstPause;
        options.longestPause = 50ms;
        return options;
    }
    void start() { m_queue.emplace(options()); }
    void stop() { m_queue.reset(); }

    int queueLines(std::initializer_list<const char*> lines)
    {
        for (const char* line : lines)
            m_queue->addCommand(line);
        return m_queue->process();
    }
    // A notification that makes the handler queue one group.
    void deliver(std::initializer_list<const char*> lines)
    {
        queueLines(lines);
        m_queue->endDelivery();
    }
    void waitAndRetry()
    {
        std::this_thread::sleep_for(m_queue->retryIn().value_or(0ms));
        m_queue->retry();
    }

    // The inputs of ebtables-restore, without its frame.
    std::vector<std::string> batches() const
    {
        std::vector<std::string> found;
        for (const std::string& input : m_tool.inputs()) {
            EXPECT_THAT(input, testing::AllOf(testing::StartsWith("*filter\n"), testing::EndsWith("COMMIT\n")));
            found.push_back(input.substr(8, input.size() - 15));
        }
        return found;
    }
    bool isRecorded() const { return m_tool.folder().has("record/tables"); }
    std::string log() const { return m_log.text(); }

    // As a process that was killed after these lines leaves it.
    void leaveRecord(const char* lines) const
    {
        ebtables::Footprint footprint;
        for (const ebtables::Command& command : ebtables::parseLine(lines).commands)
            footprint.note(command);
        ebtables::RecordFile record(m_tool.folder().path("record"));
        ASSERT_EQ(record.prepare(), "");
        ASSERT_EQ(record.write(footprint.toText(ebtables::networkNamespace())), "");
    }

    std::chrono::milliseconds m_firstPause = 20ms;
    ScriptedTool m_tool;
    CapturedDescriptor m_log{STDERR_FILENO};
    std::optional<TransactionQueue> m_queue;
};

TEST_F(TransactionQueueTest, GroupsWaitForTheEndOfTheDelivery)
{
    start();
    EXPECT_EQ(queueLines({"ebtables -N U", "ebtables -A INPUT -j U"}), 0);
    EXPECT_EQ(queueLines({"ebtables -A U -i eth0 -j DROP"}), 0);
    EXPECT_EQ(queueLines({}), 0);
    EXPECT_THAT(batches(), IsEmpty());
    m_queue->endDelivery();
    EXPECT_THAT(batches(), ElementsAre("-N U\n-A INPUT -j U\n-A U -i eth0 -j DROP\n"));
    EXPECT_TRUE(isRecorded());
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
    EXPECT_EQ(log(), "queue:103: ebtables 1.8.9 (nf_tables): each commit is one transaction\n");
}

TEST_F(TransactionQueueTest, WithoutLinesNothingIsStarted)
{
    start();
    deliver({});
    deliver({"", "   "});
    m_queue->retry();
    stop();
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, AGroupThatIsNotClosedWaitsForTheNextDelivery)
{
    start();
    m_queue->addCommand("ebtables -F INPUT");
    m_queue->endDelivery();
    EXPECT_THAT(batches(), IsEmpty());
    deliver({"ebtables -F FORWARD"});
    EXPECT_THAT(batches(), ElementsAre("-F INPUT\n-F FORWARD\n"));
}

TEST_F(TransactionQueueTest, TheCleanUpIsCarriedOutWhenTheOwnerGoes)
{
    start();
    deliver({"ebtables -N U", "ebtables -P INPUT DROP"});
    queueLines({"ebtables -X U"});
    m_queue->addCommand("ebtables -P INPUT ACCEPT"); // not even closed
    EXPECT_THAT(batches(), SizeIs(1));
    stop();
    EXPECT_THAT(batches(), ElementsAre("-N U\n-P INPUT DROP\n", "-F U\n-X U\n-P INPUT ACCEPT\n"));
    EXPECT_FALSE(isRecorded()) << "nothing is left";
}

TEST_F(TransactionQueueTest, AnExceptionBeforeTheFirstCommitLeavesWhatAKilledProcessLeft)
{
    leaveRecord("ebtables -P INPUT DROP");
    try {
        const TransactionQueue queue(options());
        throw std::runtime_error("no configuration");
    } catch (const std::runtime_error&) {
    }
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_TRUE(isRecorded()) << "for the next start";
}

TEST_F(TransactionQueueTest, ALineThatIsNoneOfEbtablesIsRefused)
{
    start();
    EXPECT_EQ(queueLines({"ebtables -F INPUT", "ebtables -F INPUT; id", "ebtables -P INPUT "}), -1);
    EXPECT_EQ(queueLines({"ebtables -F FORWARD"}), 0) << "the next group is another one";
    m_queue->endDelivery();
    EXPECT_THAT(batches(), ElementsAre("-F INPUT\n-F FORWARD\n"));
    EXPECT_THAT(log(), HasSubstr("queue:101: refused \"ebtables -F INPUT; id\": "));
    EXPECT_THAT(log(), HasSubstr("queue:101: refused \"ebtables -P INPUT \": -P needs a policy"));
}

TEST_F(TransactionQueueTest, WhatTheToolRefusesIsLoggedWithItsLine)
{
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:FORWARD ACCEPT\\n'");
    m_tool.onRestore(R"(line=$(grep -n -m1 bad "$input") || exit 0
        echo "ebtables-restore: line ${line%%:*} failed: Not you." >&2; exit 1)");
    start();
    deliver({"ebtables -A INPUT -i eth0 -j DROP", "ebtables  -A INPUT -i bad0 -j DROP",
             "ebtables -A INPUT -i eth1 -j DROP; ebtables -A FORWARD -i bad1 -j DROP"});
    EXPECT_EQ(batches().back(), "-A INPUT -i eth0 -j DROP\n-A INPUT -i eth1 -j DROP\n");
    EXPECT_THAT(log(), HasSubstr("queue:110: the tool refused \"ebtables  -A INPUT -i bad0 -j DROP\": Not you.\n"));
    EXPECT_THAT(log(), HasSubstr("queue:110: the tool refused \"ebtables -A INPUT -i eth1 -j DROP; ebtables -A FORWARD "
                                 "-i bad1 -j DROP\", of it \"ebtables -A FORWARD -i bad1 -j DROP\": Not you.\n"));
    EXPECT_THAT(m_tool.folder().read("record/tables"), Not(HasSubstr("bad"))) << "it is not in the tables";
}

TEST_F(TransactionQueueTest, WhileTheToolCannotRunEverythingWaitsInOrder)
{
    m_firstPause = 300ms; // longer than all that follows before the first try again
    m_tool.onRestore("kill -9 $$");
    start();
    deliver({"ebtables -N U", "ebtables -A U -i eth0 -j DROP"});
    m_queue->retry(); // before its time
    deliver({"ebtables -F INPUT"});
    EXPECT_THAT(batches(), SizeIs(1)) << "nothing newer goes first";
    waitAndRetry();
    m_tool.onRestore("");
    deliver({"ebtables -F FORWARD"});
    waitAndRetry();
    EXPECT_THAT(batches(), ElementsAre("-N U\n-A U -i eth0 -j DROP\n", "-N U\n-A U -i eth0 -j DROP\n-F INPUT\n",
                                       "-N U\n-A U -i eth0 -j DROP\n-F INPUT\n-F FORWARD\n"));
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
    EXPECT_THAT(log(), HasSubstr("queue:111: the bridge tables cannot be changed: " + m_tool.paths().restore +
                                 " was killed by signal 9 (Killed); is there memory enough?. Nothing is lost; it is "
                                 "tried again\nqueue:108: the bridge tables can be changed again"));
}

TEST_F(TransactionQueueTest, ThePausesGrowUpToTheLongest)
{
    const std::string fail = "date +%s%N >> " + m_tool.folder().path("times") + "; kill -9 $$";
    m_tool.onRestore(fail);
    start();
    deliver({"ebtables -F INPUT"});
    for (const auto pause : {20ms, 40ms, 50ms, 50ms}) {
        EXPECT_LE(m_queue->retryIn().value(), pause);
        waitAndRetry();
    }
    m_tool.onRestore("");
    waitAndRetry();
    m_tool.onRestore(fail);
    deliver({"ebtables -F INPUT"});
    EXPECT_LE(m_queue->retryIn().value(), 20ms) << "success starts it anew";
    stop();
    EXPECT_THAT(log(), HasSubstr("queue:102: moatkeeper's rules stay in the bridge tables"));

    std::istringstream text(m_tool.folder().read("times"));
    std::vector<long long> times{std::istream_iterator<long long>(text), {}};
    std::adjacent_difference(times.begin(), times.end(), times.begin());
    using std::chrono::nanoseconds;
    ASSERT_THAT(times, SizeIs(7));
    EXPECT_GE(nanoseconds(times[1]), 20ms);
    EXPECT_GE(nanoseconds(times[2]), 40ms);
    EXPECT_GE(nanoseconds(times[3]), 50ms);
    EXPECT_GE(nanoseconds(times[4]), 50ms);
}

TEST_F(TransactionQueueTest, ANewReasonIsLoggedAnOldOneIsNot)
{
    m_tool.onRestore("kill -9 $$");
    start();
    deliver({"ebtables -F INPUT"});
    waitAndRetry();
    m_tool.removeRestore();
    waitAndRetry();
    waitAndRetry();
    std::size_t lines = 0;
    for (std::size_t at = 0; (at = log().find("queue:111:", at)) != std::string::npos; ++at)
        ++lines;
    EXPECT_EQ(lines, 2U) << log();
}

TEST_F(TransactionQueueTest, WhatWaitsDoesNotGrowWithRepeatedRefills)
{
    m_tool.onRestore("kill -9 $$");
    start();
    for (const char* rule :
         {"ebtables -A U -i eth1 -j DROP", "ebtables -A U -i eth2 -j DROP", "ebtables -A U -i eth3 -j DROP"}) {
        deliver({"ebtables -F U", rule, "ebtables -A U -j Other"});
        waitAndRetry();
    }
    m_tool.onRestore("");
    waitAndRetry();
    EXPECT_EQ(batches().back(), "-A U -j Other\n-A U -j Other\n-F U\n-A U -i eth3 -j DROP\n-A U -j Other\n");
}

TEST_F(TransactionQueueTest, ADoneTransactionIsNotRepeated)
{
    // The chain is made and deleted: two transactions, of which the second one fails.
    m_tool.onRestore(R"(grep -q -e "-X U" "$input" && kill -9 $$; exit 0)");
    start();
    deliver({"ebtables -N U", "ebtables -X U", "ebtables -F INPUT"});
    m_tool.onRestore("");
    waitAndRetry();
    EXPECT_THAT(batches(), ElementsAre("-N U\n", "-F U\n-X U\n-F INPUT\n", "-F U\n-X U\n-F INPUT\n"));
}

TEST_F(TransactionQueueTest, AHungToolIsGivenUp)
{
    m_tool.onRestore("exec sleep 1000");
    TransactionQueueOptions impatient = options();
    impatient.limits.time = 2s; // enough for all that is to end, on a machine with other work as well
    m_queue.emplace(impatient);
    deliver({"ebtables -F INPUT"});
    EXPECT_THAT(log(), HasSubstr("did not end within 2000 ms and was killed"));
    m_tool.onRestore("");
    for (int tries = 0; m_queue->retryIn() && tries < 20; ++tries) // on a busy machine a good one may be late, too
        waitAndRetry();
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
    EXPECT_EQ(batches().back(), "-F INPUT\n");
}

TEST_F(TransactionQueueTest, ACommitThatNeedsSeveralTransactionsSaysSo)
{
    m_tool.onRestore(R"([ $(wc -l < "$input") -le 3 ] || { echo "sendmsg() failed: Message too long" >&2; exit 1; })");
    start();
    deliver({"ebtables -F INPUT", "ebtables -F FORWARD"});
    EXPECT_THAT(batches(), ElementsAre("-F INPUT\n-F FORWARD\n", "", "-F INPUT\n", "-F FORWARD\n"));
    EXPECT_THAT(log(),
                HasSubstr("queue:114: this commit was not one transaction: sendmsg() failed: Message too long\n"));
}

TEST_F(TransactionQueueTest, WhatAKilledProcessLeftGoesWithTheFirstCommit)
{
    leaveRecord("ebtables -N U; ebtables -N Gone; ebtables -A INPUT -j U; ebtables -P FORWARD DROP");
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:FORWARD DROP\\n:U RETURN\\n:Theirs RETURN\\n-A INPUT -j U\\n'");
    start();
    EXPECT_THAT(log(), HasSubstr("queue:106: a process that was killed left rules"));
    deliver({"ebtables -N U", "ebtables -A INPUT -j U"});
    EXPECT_THAT(batches(), ElementsAre("-D INPUT -j U\n-F U\n-F U\n-X U\n-P FORWARD ACCEPT\n-N U\n-A INPUT -j U\n"));
    deliver({"ebtables -F U"});
    EXPECT_THAT(batches(), SizeIs(2));
    EXPECT_EQ(batches().back(), "-F U\n") << "once";
}

TEST_F(TransactionQueueTest, WhatAKilledProcessLeftGoesWithoutACommit)
{
    leaveRecord("ebtables -N U; ebtables -A INPUT -j U");
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:U RETURN\\n-A INPUT -j U\\n'");
    start();
    stop();
    EXPECT_THAT(batches(), ElementsAre("-D INPUT -j U\n-F U\n-F U\n-X U\n"));
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, WhatAKilledProcessLeftIsKeptInMindWhileTheTablesCannotBeRead)
{
    leaveRecord("ebtables -N U");
    m_tool.onSave("echo 'Permission denied' >&2; exit 1");
    start();
    deliver({"ebtables -F INPUT"});
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_THAT(log(), HasSubstr("ebtables-save ended with status 1: Permission denied"));
    EXPECT_TRUE(isRecorded());
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:U RETURN\\n'");
    waitAndRetry();
    EXPECT_THAT(batches(), ElementsAre("-F U\n-F U\n-X U\n-F INPUT\n"));
}

TEST_F(TransactionQueueTest, LeftoversThatTheToolRefusesToTakeOutAreAWarning)
{
    leaveRecord("ebtables -N U");
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:U RETURN\\n'");
    m_tool.onRestore(R"(line=$(grep -n -m1 -e "^-X U" "$input") || exit 0
        echo "ebtables-restore: line ${line%%:*} failed: Busy." >&2; exit 1)");
    start();
    deliver({"ebtables -F INPUT"});
    EXPECT_EQ(batches().back(), "-F U\n-F INPUT\n");
    EXPECT_THAT(log(), HasSubstr("queue:109: cannot take out what a killed process left, \"-X U\": Busy.\n"));
}

TEST_F(TransactionQueueTest, ADamagedRecordIsReportedAndIgnored)
{
    leaveRecord("ebtables -N U");
    m_tool.folder().write("record/tables", m_tool.folder().read("record/tables").substr(3));
    m_tool.onSave("printf '*filter\\n:INPUT ACCEPT\\n:U RETURN\\n'");
    start();
    stop();
    EXPECT_THAT(log(), HasSubstr("queue:107: the record " + m_tool.folder().path("record/tables") +
                                 " is ignored: damaged: its checksum does not fit\n"));
    EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(TransactionQueueTest, WithoutARecordItWorksAllTheSame)
{
    m_tool.folder().write("record", "no folder");
    start();
    EXPECT_THAT(log(), HasSubstr("queue:105: " + m_tool.folder().path("record") +
                                 " is no folder; after a kill of this "
                                 "process its rules will have to be "
                                 "removed by hand\n"));
    deliver({"ebtables -N U"});
    EXPECT_THAT(batches(), ElementsAre("-N U\n"));
}

TEST_F(TransactionQueueTest, ARecordThatCannotBeWrittenIsAWarning)
{
    start();
    std::filesystem::create_directories(m_tool.folder().path("record/tables.new/full"));
    deliver({"ebtables -N U"});
    EXPECT_THAT(batches(), ElementsAre("-N U\n"));
    EXPECT_THAT(log(), HasSubstr("queue:112: cannot write " + m_tool.folder().path("record/tables.new: ")));
}

TEST_F(TransactionQueueTest, WhileAnotherOneIsAtWorkNothingIsDone)
{
    std::optional<ebtables::RecordFile> other(m_tool.folder().path("record"));
    ASSERT_EQ(other->prepare(), "");
    ASSERT_TRUE(other->lock());
    start();
    deliver({"ebtables -F INPUT"});
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_THAT(log(), HasSubstr("another moatkeeper process, or a child of a killed one, is still at work in "));
    other.reset();
    waitAndRetry();
    EXPECT_THAT(batches(), ElementsAre("-F INPUT\n"));
}

TEST_F(TransactionQueueTest, AToolWithoutTransactionsGetsLineByLine)
{
    m_tool.onVersion("[ \"$1\" = --version ] && echo 'ebtables v2.0.10.4 (legacy)' && exit\necho \"$@\" >> " +
                     m_tool.folder().path("lines"));
    start();
    EXPECT_EQ(log(), "queue:104: ebtables v2.0.10.4 (legacy) knows no transactions: commits are not atomic, lines are "
                     "run one at a time\n");
    deliver({"ebtables -N U", "ebtables -A INPUT -j U"});
    EXPECT_EQ(m_tool.folder().read("lines"), "-N U\n-A INPUT -j U\n");
    EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(TransactionQueueTest, AToolThatIsInstalledLaterIsFound)
{
    m_tool.onVersion("exit 1");
    start();
    EXPECT_EQ(log(), "");
    m_tool.onVersion("echo 'ebtables 1.8.9 (nf_tables)'");
    deliver({"ebtables -F INPUT"});
    EXPECT_EQ(log(), "queue:103: ebtables 1.8.9 (nf_tables): each commit is one transaction\n");
}

TEST_F(TransactionQueueTest, AStopSignalEndsTheWaitAndTheCleanUpFollows)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    sigaction(SIGTERM, &action, &before);
    m_tool.onRestore("kill -TERM $PPID; exec sleep 1000");
    TransactionQueueOptions quick = options();
    quick.limits.afterStop = 30ms;
    m_queue.emplace(quick);
    deliver({"ebtables -N U"});
    m_tool.onRestore("");
    queueLines({"ebtables -X U"});
    stop();
    sigaction(SIGTERM, &before, nullptr);
    EXPECT_THAT(log(), HasSubstr("was killed because a stop signal came"));
    EXPECT_THAT(batches(), ElementsAre("-N U\n", "-N U\n", "-F U\n-X U\n"));
    EXPECT_FALSE(isRecorded());
}

} // namespace
