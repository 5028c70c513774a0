// Drives the whole handler with random sequences of table states, notifications and commits, replays what it
// queues in a model of the bridge tables, and checks the tables against the rows after every commit.
//
// MOATKEEPER_SEED: the seed (a number; the default is fixed). MOATKEEPER_SEQUENCES: how many sequences.
#include "tests/random/environment.hpp"
#include "tests/random/expectation.hpp"

#include "handler/moatkeeper.hpp"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/recording_queue.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace randomtest
{

namespace
{

class Sequence
{
public:
    // tell: whether a failure's text says how it came to it; slow.
    Sequence(std::uint64_t seed, CaseCounts& counts, bool tell) : m_generator(seed), m_expectation(counts), m_tell(tell)
    {
    }

    // Empty, or what went wrong.
    std::string run()
    {
        // Most sequences deliver as the device does, every table at most once between two commits.
        const bool wild = m_generator.chance(30);
        const int steps = 2 + m_generator.below(3);
        for (int step = 0; step < steps; ++step) {
            const int reads = wild ? m_generator.below(4) : 1;
            for (int read = 0; read < reads; ++read) {
                std::string table;
                for (int changes = m_generator.below(3); changes >= 0; --changes)
                    table = m_generator.change(m_tables);
                load(m_generator.chance(50) ? "" : table);
            }
            if (std::string wrong = commit(); !wrong.empty())
                return m_story + "--- " + wrong + "\n" + m_model.dump();
        }
        m_handler.reset();
        replay();
        const std::string wrong = m_expectation.checkEnd(m_model);
        return wrong.empty() ? "" : m_story + "--- at the end: " + wrong + "\n" + m_model.dump();
    }

private:
    void load(const std::string& table)
    {
        m_tables.writeTo(m_source);
        m_handler->loadFromConfig(m_source, table);
        m_expectation.onRead(table, m_tables);
        if (m_tell)
            m_story += "load \"" + table + "\"\n";
    }

    std::string commit()
    {
        m_handler->commitToSystem(m_source, &m_queue);
        m_expectation.onCommit();
        if (m_tell)
            m_story += "commit\n";
        replay();
        if (std::string wrong = m_expectation.check(m_model); !wrong.empty())
            return wrong;
        m_handler->commitToSystem(m_source, &m_queue);
        return m_queue.takeCalls().empty() ? "" : "a second commit without a read queued something";
    }

    void replay()
    {
        for (const fake::QueueCall& call : m_queue.takeCalls()) {
            if (call.isProcess)
                continue;
            const int refused = m_model.apply(call.line);
            if (m_tell)
                m_story += "  " + call.line + (refused > 0 ? "   (refused)\n" : "\n");
        }
    }

    Generator m_generator;
    Tables m_tables;
    fake::MemoryTables m_source;
    fake::RecordingQueue m_queue;
    std::unique_ptr<zol::moatkeeper::moatkeeper> m_handler = std::make_unique<zol::moatkeeper::moatkeeper>();
    BridgeModel m_model;
    Expectation m_expectation;
    bool m_tell;
    std::string m_story;
};

TEST(RandomSequences, TablesFollowTheRows)
{
    const auto seed = fromEnvironment("MOATKEEPER_SEED", 20240229);
    const auto sequences = fromEnvironment("MOATKEEPER_SEQUENCES", MOATKEEPER_DEFAULT_SEQUENCES);
    std::printf("seed %llu, %llu sequences\n", seed, sequences);
    CaseCounts counts;
    for (unsigned long long index = 0; index < sequences; ++index) {
        const std::uint64_t sequenceSeed = seed * 1000003 + index;
        const std::string wrong = Sequence(sequenceSeed, counts, false).run();
        fake::capturedLog().takeLines();
        ASSERT_EQ(wrong, "") << "seed " << seed << ", sequence " << index << "\n"
                             << Sequence(sequenceSeed, counts, true).run();
    }
    std::printf(
        "%ld commits: %ld with tables known in full, of these %ld with a chain that filters share; %ld groups with a "
        "change taken back, %ld with unseen criteria; %ld commits with chains left behind\n",
        counts.commits, counts.exact, counts.sharedChain, counts.cancelled, counts.unseenCriteria, counts.leftBehind);
    // Every case has come up, and the plain one is the rule.
    if (sequences >= 1000) {
        EXPECT_GT(counts.exact, counts.commits / 2);
        EXPECT_GT(counts.cancelled, 0);
        EXPECT_GT(counts.unseenCriteria, 0);
        EXPECT_GT(counts.leftBehind, 0);
        EXPECT_GT(counts.sharedChain, 0);
    }
}

} // namespace

} // namespace randomtest
