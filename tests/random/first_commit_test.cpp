// Random tables, with rows that are unusable for every reason: the pure function and the handler agree on the lines
// of the first commit and on the rows that have none.
//
// MOATKEEPER_SEED: the seed (a number; the default is fixed). MOATKEEPER_SEQUENCES: how many states of the tables.
#include "tests/random/environment.hpp"
#include "tests/random/first_commit_check.hpp"
#include "tests/random/scenario.hpp"

#include <gtest/gtest.h>

namespace randomtest
{

namespace
{

TEST(RandomTables, FirstCommitIsWhatTheHandlerQueues)
{
    const auto seed = fromEnvironment("MOATKEEPER_SEED", 20240229);
    const auto states = fromEnvironment("MOATKEEPER_SEQUENCES", MOATKEEPER_DEFAULT_STATES);
    Generator generator(seed);
    Tables tables;
    fake::MemoryTables source;
    for (unsigned long long state = 0; state < states; ++state) {
        for (int changes = generator.below(6); changes >= 0; --changes)
            generator.change(tables);
        tables.writeTo(source);
        ASSERT_EQ(compareFirstCommit(source), "") << "seed " << seed << ", state " << state;
    }
}

} // namespace

} // namespace randomtest
