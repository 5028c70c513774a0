#include "ebtables/line_parser.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/record_file.hpp"
#include "platform_linux/queue/transaction_queue.hpp"
#include "tests/unit/captured_descriptor.hpp"
#include "tests/unit/fake_kernel.hpp"
#include "tests/unit/scripted_tool.hpp"

#include <cerrno>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using zol::cfg::TransactionQueue;
using zol::cfg::TransactionQueueOptions;
using Fault = FakeKernel::Fault;
using namespace std::chrono_literals;

namespace
{

using Lines = std::vector<std::string>;

class TransactionQueueTest : public testing::Test
{
protected:
    TransactionQueueTest()
    {
        ZOL_Sysloglevel_construct2("", "moatkeeper");
        ZOL_Sysloglevel_set(0);
    }

    void start()
    {
        TransactionQueueOptions options;
        options.tools = m_tool.paths();
        options.recordFolder = m_tool.folder().path("record");
        options.anyForm = true; // what passes the gate is not the matter here
        options.firstPause = 5ms;
        options.longestPause = 20ms;
        options.openSocket = m_kernel.opener();
        m_queue.emplace(options);
    }
    int queueLines(const Lines& lines)
    {
        for (const std::string& line : lines)
            m_queue->addCommand(line);
        return m_queue->process();
    }
    void deliver(const Lines& lines)
    {
        queueLines(lines);
        m_queue->endDelivery();
    }
    void waitAndRetry()
    {
        std::this_thread::sleep_for(m_queue->retryIn().value_or(0ms));
        m_queue->retry();
    }
    bool isRecorded() const { return m_tool.folder().has("record/tables"); }
    std::string log() const { return m_log.text(); }
    std::size_t count(const std::string& part) const
    {
        const std::string text = log();
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at)
            ++found;
        return found;
    }

    FakeKernel m_kernel;
    ScriptedTool m_tool;
    CapturedDescriptor m_log{STDERR_FILENO};
    std::optional<TransactionQueue> m_queue;
};

const Lines setUp{"ebtables -N U", "ebtables -P U RETURN", "ebtables -A INPUT -j U", "ebtables -A U -i eth0 -j DROP"};
const Lines cleanUp{"ebtables -D INPUT -j U", "ebtables -X U"};

const auto inKernel =
    ElementsAre(Pair("INPUT", ElementsAre("ACCEPT", "-j U")), Pair("U", ElementsAre("RETURN", "-i eth0 -j DROP")));

TEST_F(TransactionQueueTest, GroupsWaitForTheEndOfTheDelivery)
{
    start();
    EXPECT_EQ(queueLines({setUp[0], setUp[1]}), 0);
    EXPECT_EQ(queueLines({setUp[2], setUp[3]}), 0);
    EXPECT_EQ(m_kernel.batches(), 0U);
    m_queue->endDelivery();
    EXPECT_EQ(m_kernel.batches(), 1U);
    EXPECT_THAT(m_kernel.tables(), inKernel);
    EXPECT_TRUE(isRecorded());
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
    EXPECT_EQ(log(), "queue:103: each commit is one transaction of nf_tables\n");
}

TEST_F(TransactionQueueTest, WithoutLinesNothingIsDone)
{
    start();
    deliver({});
    deliver({"", "   "});
    EXPECT_EQ(m_kernel.batches(), 0U);
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, OnlyWhatChangesIsSent)
{
    start();
    deliver(setUp);
    Lines refill{"ebtables -F U"};
    for (int i = 0; i < 100; ++i)
        refill.push_back("ebtables -A U -i p" + std::to_string(i) + " -j DROP");
    deliver(refill);
    deliver(refill);
    EXPECT_EQ(m_kernel.batches(), 2U) << "the same again is nothing";
    refill[50] = "ebtables -A U -i other -j DROP";
    deliver(refill);
    EXPECT_EQ(m_kernel.lastMessages(), 2U) << "one goes, one comes";
    EXPECT_EQ(m_kernel.tables().at("U")[50], "-i other -j DROP");
    std::swap(refill[10], refill[90]);
    deliver(refill);
    EXPECT_EQ(m_kernel.lastMessages(), 4U) << "two change places";
    EXPECT_EQ(m_kernel.tables().at("U")[10], "-i p89 -j DROP");
    EXPECT_EQ(m_kernel.tables().at("U")[90], "-i p9 -j DROP");
}

TEST_F(TransactionQueueTest, AKernelWithoutMapsHasThePlainForm)
{
    start();
    m_queue->setCompiled(true);
    Lines lines = setUp;
    for (int i = 0; i < 20; ++i)
        lines.push_back("ebtables -A U -i p1 -s 02:00:00:00:00:" + std::to_string(10 + i) + " -j DROP");
    deliver(lines);
    EXPECT_THAT(m_kernel.tables().at("U"), SizeIs(22)) << "its policy, and all rules";
    const std::string form = "plain: the kernel does not take it: Operation not supported";
    EXPECT_EQ(m_queue->status(0).form, form);
    EXPECT_TRUE(m_queue->status(0).inStep);
    EXPECT_EQ(count("queue:119: the form of the rules in the kernel is " + form + "\n"), 1U);

    const unsigned before = m_kernel.batches();
    deliver({"ebtables -A U -j ACCEPT"});
    EXPECT_EQ(m_kernel.batches(), before + 1) << "it is not asked again with each commit";
    m_queue->setCompiled(false);
    m_queue->endDelivery();
    EXPECT_EQ(m_queue->status(0).form, "plain");
    m_queue->setCompiled(true);
    m_queue->endDelivery();
    EXPECT_EQ(m_queue->status(0).form, form);
    EXPECT_EQ(m_kernel.batches(), before + 2) << "but when it is chosen again";
}

TEST_F(TransactionQueueTest, TheCleanUpIsOneTransactionAndLeavesNothing)
{
    start();
    deliver(setUp);
    queueLines(cleanUp);
    m_queue.reset();
    EXPECT_EQ(m_kernel.batches(), 2U);
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT"))));
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, ARefusedLineCostsItselfAndIsToldOnce)
{
    start();
    deliver(setUp);
    const Lines refill{"ebtables -F U", "ebtables -A U -i eth1 -j DROP", "ebtables -A U -s broken -j DROP",
                       "ebtables -A Missing -j DROP", "ebtables -A U -j Missing"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(queueLines(refill), -1);
        m_queue->endDelivery();
    }
    EXPECT_THAT(m_kernel.tables().at("U"), ElementsAre("RETURN", "-i eth1 -j DROP"));
    EXPECT_EQ(count("queue:101:"), 1U) << log();
    EXPECT_EQ(count("queue:110:"), 2U) << log();
    deliver({"ebtables -F U", "ebtables -A U -i eth1 -j DROP"});
    EXPECT_THAT(log(), HasSubstr("queue:115: not refused any more, or gone: \"ebtables -A U -s broken -j DROP\""));
    deliver(refill);
    EXPECT_EQ(count("queue:101:"), 2U) << log();
}

TEST_F(TransactionQueueTest, WhatTheKernelRefusesIsDroppedAndTheRestGoesIn)
{
    start();
    deliver(setUp);
    m_kernel.fail({Fault::Kind::Error, EINVAL, 2, 1}); // 1 takes the old rule out
    deliver({"ebtables -F U", "ebtables -A U -i eth1 -j DROP", "ebtables -A U -i eth2 -j DROP"});
    EXPECT_THAT(m_kernel.tables().at("U"), ElementsAre("RETURN", "-i eth2 -j DROP"));
    EXPECT_THAT(log(), HasSubstr("queue:110: the kernel refused \"ebtables -A U -i eth1 -j DROP\": Invalid argument"));
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
}

TEST_F(TransactionQueueTest, WhatWaitsIsWhatIsWanted)
{
    start();
    deliver(setUp);
    m_kernel.fail({Fault::Kind::BatchError, EPERM, std::nullopt, 1000});
    const unsigned before = m_kernel.batches();
    for (int i = 0; i < 500; ++i)
        deliver({"ebtables -F U", "ebtables -A U -i p" + std::to_string(i) + " -j DROP", "ebtables -P INPUT DROP",
                 "ebtables -P INPUT ACCEPT"});
    EXPECT_LT(m_kernel.batches() - before, 100U) << "a pause, growing";
    EXPECT_EQ(count("queue:111:"), 1U) << log();
    EXPECT_THAT(log(), HasSubstr("Operation not permitted; run as root or with CAP_NET_ADMIN. Nothing is lost"));
    m_kernel.fail({Fault::Kind::Error, 0, std::nullopt, 0});
    waitAndRetry();
    EXPECT_THAT(m_kernel.tables().at("U"), ElementsAre("RETURN", "-i p499 -j DROP"));
    EXPECT_EQ(m_kernel.lastMessages(), 2U);
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
    EXPECT_THAT(log(), HasSubstr("queue:108:"));
}

TEST_F(TransactionQueueTest, ARightThatIsMissingIsLookedForWithASmallMessage)
{
    start();
    deliver(setUp);
    m_kernel.fail({Fault::Kind::BatchError, EPERM, std::nullopt, 1000});
    deliver({"ebtables -A U -i eth1 -j DROP"});
    EXPECT_EQ(m_kernel.lastMessages(), 1U);
    for (int i = 0; i < 10; ++i) {
        const unsigned before = m_kernel.batches();
        ASSERT_LE(m_queue->retryIn(), 50ms) << "the pause does not grow";
        std::this_thread::sleep_for(*m_queue->retryIn());
        EXPECT_FALSE(m_queue->retry());
        EXPECT_EQ(m_kernel.batches(), before + 1);
        EXPECT_EQ(m_kernel.lastMessages(), 0U);
    }
    m_kernel.fail({});
    std::this_thread::sleep_for(*m_queue->retryIn());
    EXPECT_TRUE(m_queue->retry());
    EXPECT_THAT(m_kernel.tables().at("U"), ElementsAre("RETURN", "-i eth0 -j DROP", "-i eth1 -j DROP"));
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
}

TEST_F(TransactionQueueTest, APauseGrowsWhenTheRightSeemsToBeThereAndIsNot)
{
    start();
    deliver(setUp);
    m_kernel.fail({Fault::Kind::Error, EPERM, 1, 1000}); // the small message has none of this number
    deliver({"ebtables -A U -i eth1 -j DROP"});
    const unsigned before = m_kernel.batches();
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < 100ms)
        waitAndRetry();
    EXPECT_LE(m_kernel.batches() - before, 40U);
    m_kernel.fail({});
    for (int i = 0; i < 3 && m_queue->retryIn(); ++i)
        waitAndRetry();
    EXPECT_EQ(m_kernel.tables().at("U").size(), 3U);
}

// Each message of a batch that makes, fills and takes out chains meets each mishap: in the end all is there, once.
TEST_F(TransactionQueueTest, NothingIsLostOrDoubledWhateverTheAnswer)
{
    const Lines change{"ebtables -D INPUT -j U", "ebtables -X U",           "ebtables -N V",
                       "ebtables -P V DROP",     "ebtables -A V -j ACCEPT", "ebtables -I INPUT 1 -j V",
                       "ebtables -P INPUT DROP"};
    const auto after =
        ElementsAre(Pair("INPUT", ElementsAre("DROP", "-j V")), Pair("V", ElementsAre("DROP", "-j ACCEPT")));
    const std::vector<Fault> faults = [] {
        std::vector<Fault> all;
        for (const int error : {EPERM, ENOMEM, ENOBUFS, EINTR, 85 /* ERESTART */}) {
            for (std::size_t message = 0; message < 10; ++message)
                all.push_back({Fault::Kind::Error, error, message, 1});
            all.push_back({Fault::Kind::BatchError, error, std::nullopt, 1});
            all.push_back({Fault::Kind::SendError, error, std::nullopt, 1});
        }
        for (const auto kind : {Fault::Kind::NoAnswer, Fault::Kind::Overrun, Fault::Kind::Cut, Fault::Kind::Lie}) {
            for (const unsigned times : {1U, 2U, 5U})
                all.push_back({kind, 0, std::nullopt, times});
        }
        for (std::size_t request = 0; request < 6; ++request) {
            for (const unsigned times : {1U, 2U}) {
                for (const int error : {EPERM, ENOMEM, ENOBUFS, EINTR, 85 /* ERESTART */})
                    all.push_back({Fault::Kind::Error, error, request, times, true});
                for (const auto kind :
                     {Fault::Kind::NoAnswer, Fault::Kind::Overrun, Fault::Kind::Cut, Fault::Kind::Lie})
                    all.push_back({kind, 0, request, times, true});
            }
            all.push_back({Fault::Kind::Omission, 0, request, 1, true});
        }
        return all;
    }();
    for (const Fault& fault : faults) {
        SCOPED_TRACE(testing::Message() << "kind " << static_cast<int>(fault.kind) << " error " << fault.error
                                        << " message " << fault.message.value_or(99) << " times " << fault.times
                                        << " reading " << fault.reading);
        m_kernel = FakeKernel();
        start();
        deliver(setUp);
        m_kernel.fail(fault);
        if (fault.reading)
            m_kernel.bumpGeneration(); // so that they are read again
        deliver(change);
        for (int i = 0; i < 100 && m_queue->retryIn(); ++i) {
            EXPECT_THAT(m_kernel.tables(), testing::AnyOf(inKernel, after)) << "never a part";
            waitAndRetry();
        }
        EXPECT_THAT(m_kernel.tables(), after);
        EXPECT_THAT(log(), Not(HasSubstr("refused")));
        queueLines({"ebtables -D INPUT -j V", "ebtables -X V", "ebtables -P INPUT ACCEPT"});
        m_queue.reset();
        EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT"))));
    }
}

TEST_F(TransactionQueueTest, OthersWhoChangeOtherTablesAreNoHindrance)
{
    start();
    deliver(setUp);
    m_kernel.interfere(50);
    deliver({"ebtables -A U -i eth1 -j DROP"});
    EXPECT_THAT(m_kernel.tables().at("U"), ElementsAre("RETURN", "-i eth0 -j DROP", "-i eth1 -j DROP"));
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
}

TEST_F(TransactionQueueTest, WhatOthersTookOutComesBackWithTheNextCommit)
{
    start();
    deliver(setUp);
    m_kernel.flush("INPUT");
    m_kernel.removeChain("U");
    deliver({"ebtables -A U -i eth1 -j DROP"});
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT", "-j U")),
                                               Pair("U", ElementsAre("RETURN", "-i eth0 -j DROP", "-i eth1 -j DROP"))));
    EXPECT_THAT(log(), HasSubstr("queue:116: another program changed moatkeeper's part of the bridge tables, which is "
                                 "put back: jumps or rules of ours in INPUT were changed (0 instead of 1), chain U was "
                                 "gone\n"));
}

TEST_F(TransactionQueueTest, WhatAKilledProcessLeftIsTakenOverInTheFirstTransaction)
{
    start();
    deliver(setUp);
    deliver({"ebtables -P FORWARD DROP"});
    const std::string record = m_tool.folder().read("record/tables");
    m_queue.reset(); // without a clean-up, as after a kill
    EXPECT_EQ(m_tool.folder().read("record/tables"), record);
    const unsigned before = m_kernel.batches();
    start();
    EXPECT_THAT(log(), HasSubstr("queue:106:"));
    deliver({setUp[0], setUp[1], setUp[2], "ebtables -A U -i eth9 -j DROP"});
    EXPECT_EQ(m_kernel.batches(), before + 1);
    EXPECT_THAT(m_kernel.tables(),
                ElementsAre(Pair("FORWARD", ElementsAre("ACCEPT")), Pair("INPUT", ElementsAre("ACCEPT", "-j U")),
                            Pair("U", ElementsAre("RETURN", "-i eth9 -j DROP"))));
}

TEST_F(TransactionQueueTest, WithoutACommitWhatAKilledProcessLeftIsTakenOut)
{
    start();
    deliver(setUp);
    m_queue.reset();
    start();
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT"))));
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, AnExceptionBeforeTheFirstCommitLeavesWhatAKilledProcessLeft)
{
    start();
    deliver(setUp);
    m_queue.reset();
    try {
        start();
        struct AtTheEnd {
            std::optional<TransactionQueue>& queue;
            ~AtTheEnd() { queue.reset(); }
        };
        const AtTheEnd gone{m_queue};
        throw std::runtime_error("no configuration");
    } catch (const std::runtime_error&) {
    }
    EXPECT_THAT(m_kernel.tables(), inKernel);
    EXPECT_TRUE(isRecorded()) << "for the next start";
}

TEST_F(TransactionQueueTest, AUsedTableOfOthersIsLeftAlone)
{
    start();
    deliver({"ebtables -N Theirs", "ebtables -A FORWARD -j Theirs", "ebtables -A FORWARD -i e -j DROP"});
    m_queue.reset();
    std::filesystem::remove(m_tool.folder().path("record/tables")); // they are somebody else's now
    start();
    deliver({"ebtables -N Theirs", "ebtables -N U", "ebtables -I FORWARD 1 -j U"});
    EXPECT_THAT(log(), HasSubstr("refused \"ebtables -N Theirs\": Chain already exists."));
    EXPECT_THAT(m_kernel.tables().at("FORWARD"), ElementsAre("ACCEPT", "-j U", "-j Theirs", "-i e -j DROP"));
    queueLines({"ebtables -D FORWARD -j U", "ebtables -X U"});
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("FORWARD", ElementsAre("ACCEPT", "-j Theirs", "-i e -j DROP")),
                                               Pair("Theirs", ElementsAre("ACCEPT"))));
}

// Were another's chain in the record, the start after a kill would take it for one of ours and empty it.
TEST_F(TransactionQueueTest, TheRecordNamesNoChainOfOthers)
{
    start();
    deliver({"ebtables -N U", "ebtables -A U -i e -j DROP", "ebtables -A FORWARD -j U"});
    m_queue.reset();
    std::filesystem::remove(m_tool.folder().path("record/tables")); // they are somebody else's now
    const auto theirs = m_kernel.tables();

    for (const auto kind : {Fault::Kind::SendError, Fault::Kind::NoAnswer, Fault::Kind::BatchError}) {
        start();
        m_kernel.fail({kind, EPERM, std::nullopt, 1'000});
        deliver({setUp[0], "ebtables -N V", "ebtables -A INPUT -j V"});
        const std::string record = m_tool.folder().read("record/tables"); // as a kill would leave it
        EXPECT_THAT(record, HasSubstr("chain V"));
        EXPECT_THAT(record, Not(HasSubstr("chain U")));
        m_kernel.fail({});
        m_queue.reset();
        m_tool.folder().write("record/tables", record);
        start();
        queueLines({"ebtables -N W"});
        m_queue->endDelivery();
        queueLines({"ebtables -X W"});
        m_queue.reset();
        EXPECT_EQ(m_kernel.tables().at("U"), theirs.at("U"));
        EXPECT_EQ(m_kernel.tables().at("FORWARD"), theirs.at("FORWARD"));
        EXPECT_FALSE(m_kernel.tables().contains("V"));
    }
}

// "1" and "0eth1" make the same name as "10" and "eth1".
TEST_F(TransactionQueueTest, TwoFiltersOfOneNameShareAChainAndTheLogSaysSo)
{
    const std::string chain = "10eth1p2MACblacklist";
    const auto filter = [&](const std::string& port) {
        return Lines{"ebtables -N " + chain + ";ebtables -P " + chain + " RETURN;",
                     "ebtables -I FORWARD 1 -i " + port + " -o p2 -j " + chain + ";ebtables -I FORWARD 1 -o " + port +
                         " -i p2 -j " + chain + ";",
                     "ebtables -A " + chain + " -s 02:00:00:00:00:01 -j DROP"};
    };
    Lines both = filter("eth1");
    std::ranges::copy(filter("0eth1"), std::back_inserter(both));
    start();
    deliver(both);
    EXPECT_THAT(m_kernel.tables().at(chain),
                ElementsAre("RETURN", "-s 02:00:00:00:00:01 -j DROP", "-s 02:00:00:00:00:01 -j DROP"));
    EXPECT_EQ(m_kernel.tables().at("FORWARD").size(), 5U) << "four jumps";
    EXPECT_EQ(count("queue:110: refused \"ebtables -N " + chain + ";ebtables -P " + chain +
                    " RETURN;\": Chain already exists: it serves both who wanted one of this name\n"),
              1U);
}

TEST_F(TransactionQueueTest, ALegacyToolIsRunForEachLine)
{
    m_tool.onVersion("case $1 in --version) echo 'ebtables v2.0.11 (legacy)';; *) echo \"$*\" >> " +
                     m_tool.folder().path("calls") + ";; esac");
    start();
    deliver(setUp);
    EXPECT_EQ(m_tool.folder().read("calls"), "-N U\n-P U RETURN\n-A INPUT -j U\n-A U -i eth0 -j DROP\n");
    EXPECT_EQ(m_kernel.batches(), 0U);
    EXPECT_THAT(log(), HasSubstr("queue:104: ebtables v2.0.11 (legacy) knows no transactions"));
    EXPECT_TRUE(isRecorded());
    queueLines(cleanUp);
    m_queue.reset();
    EXPECT_FALSE(isRecorded());
}

const Lines closed{"ebtables -N C", "ebtables -A C -i eth1 -j ACCEPT", "ebtables -A INPUT -j C",
                   "ebtables -P INPUT DROP"};
const auto isClosed =
    ElementsAre(Pair("C", ElementsAre("ACCEPT", "-i eth1 -j ACCEPT")), Pair("INPUT", ElementsAre("DROP", "-j C")));
using Held = TransactionQueue::Held;

TEST_F(TransactionQueueTest, WhatHoldsUntilTheFirstCommitIsReplacedByItInOneTransaction)
{
    start();
    EXPECT_EQ(m_queue->hold(closed), Held::InForce);
    EXPECT_THAT(m_kernel.tables(), isClosed);
    EXPECT_FALSE(m_queue->status(0).inStep) << "no commit of anybody's";
    EXPECT_TRUE(isRecorded());
    m_queue->endDelivery();
    EXPECT_THAT(m_kernel.tables(), isClosed) << "nothing was delivered";
    const auto before = m_kernel.batches();
    deliver(setUp);
    EXPECT_EQ(m_kernel.batches(), before + 1);
    EXPECT_THAT(m_kernel.tables(), inKernel);
    EXPECT_TRUE(m_queue->status(0).inStep);
    queueLines(cleanUp);
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT"))));
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, WhatHoldsIsTakenOutByAStopAndLeftByAHandOver)
{
    start();
    m_queue->hold(closed);
    m_queue->keep();
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), isClosed);
    start();
    const auto before = m_kernel.batches();
    EXPECT_EQ(m_queue->hold(closed), Held::InForce);
    EXPECT_EQ(m_kernel.batches(), before) << "the same again";
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("INPUT", ElementsAre("ACCEPT"))));
    EXPECT_FALSE(isRecorded());
}

TEST_F(TransactionQueueTest, ANextProcessHoldsWhatItIsToldNotWhatTheProcessBeforeHeld)
{
    start();
    m_queue->hold(closed);
    m_queue->keep();
    m_queue.reset();
    start();
    EXPECT_EQ(m_queue->hold({closed[0], "ebtables -A C -i eth2 -j ACCEPT", closed[2], closed[3]}), Held::InForce);
    EXPECT_THAT(m_kernel.tables(), ElementsAre(Pair("C", ElementsAre("ACCEPT", "-i eth2 -j ACCEPT")),
                                               Pair("INPUT", ElementsAre("DROP", "-j C"))));
}

TEST_F(TransactionQueueTest, NothingIsHeldWhereRulesOfTheProcessBeforeAre)
{
    start();
    deliver(setUp);
    m_queue->keep();
    queueLines(cleanUp);
    m_queue.reset();
    EXPECT_THAT(m_kernel.tables(), inKernel);
    start();
    EXPECT_EQ(m_queue->hold(closed), Held::NotNeeded);
    EXPECT_THAT(m_kernel.tables(), inKernel);
    const auto before = m_kernel.batches();
    deliver(setUp);
    EXPECT_EQ(m_kernel.batches(), before) << "the next process wants the same";
}

TEST_F(TransactionQueueTest, WhatCannotBeHeldIsTriedAgainAndForgottenAtTheFirstCommit)
{
    start();
    m_kernel.fail({Fault::Kind::BatchError, EPERM, std::nullopt, 2});
    EXPECT_EQ(m_queue->hold(closed), Held::Waits);
    EXPECT_THAT(log(), HasSubstr("queue:111:"));
    while (m_queue->retryIn())
        waitAndRetry();
    EXPECT_THAT(m_kernel.tables(), isClosed);
    m_queue.reset();
    start();
    m_kernel.fail({Fault::Kind::BatchError, EPERM, std::nullopt, 1});
    EXPECT_EQ(m_queue->hold(closed), Held::Waits);
    deliver(setUp);
    EXPECT_THAT(m_kernel.tables(), inKernel);
}

TEST_F(TransactionQueueTest, ALookPutsRightWhatNobodyHasTold)
{
    start();
    m_queue->look(); // before there is anything
    deliver(setUp);
    m_kernel.flush("U");
    m_queue->look();
    EXPECT_THAT(m_kernel.tables(), inKernel);
    EXPECT_THAT(log(), HasSubstr("queue:116:"));
}

TEST_F(TransactionQueueTest, WithALegacyToolWhatHoldsGoesWhenTheCommitIsThere)
{
    const std::string calls = m_tool.folder().path("calls");
    m_tool.onVersion("case $1 in --version) echo 'ebtables v2.0.11 (legacy)';; *) echo \"$*\" >> " + calls + ";; esac");
    start();
    EXPECT_EQ(m_queue->hold(closed), Held::InForce);
    EXPECT_EQ(m_tool.folder().read("calls"), "-N C\n-A C -i eth1 -j ACCEPT\n-A INPUT -j C\n-P INPUT DROP\n");
    m_tool.folder().write("calls", "");
    m_tool.onSave(
        "printf '*filter\\n:INPUT DROP\\n:FORWARD ACCEPT\\n:OUTPUT ACCEPT\\n:C ACCEPT\\n-A C -i eth1 -j ACCEPT\\n"
        "-A INPUT -j C\\n'");
    Lines lines = setUp;
    lines.emplace_back("ebtables -P INPUT DROP");
    deliver(lines);
    EXPECT_EQ(m_tool.folder().read("calls"), "-N U\n-P U RETURN\n-A INPUT -j U\n-A U -i eth0 -j DROP\n-P INPUT DROP\n"
                                             "-D INPUT -j C\n-F C\n-X C\n");
}

TEST_F(TransactionQueueTest, ALegacyToolThatCannotRunKeepsItsLines)
{
    const std::string calls = m_tool.folder().path("calls");
    const auto version = [&](const std::string& rest) {
        m_tool.onVersion("case $1 in --version) echo 'ebtables v2.0.11 (legacy)'; exit;; esac\n" + rest);
    };
    version("echo 'Operation not permitted' >&2; exit 255");
    start();
    deliver(setUp);
    EXPECT_THAT(log(), HasSubstr("queue:111:"));
    EXPECT_THAT(log(), HasSubstr("run as root or with CAP_NET_ADMIN"));
    version("echo \"$*\" >> " + calls + "; case $* in *eth0*) echo 'bad luck' >&2; exit 255;; esac");
    waitAndRetry();
    EXPECT_EQ(m_tool.folder().read("calls"), "-N U\n-P U RETURN\n-A INPUT -j U\n-A U -i eth0 -j DROP\n");
    EXPECT_THAT(log(), HasSubstr("queue:110: the tool refused \"ebtables -A U -i eth0 -j DROP\": bad luck"));
    EXPECT_EQ(m_queue->retryIn(), std::nullopt);
}

} // namespace
