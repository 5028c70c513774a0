// What moatctl check says, against what the tool does.
#include "moatctl/bridge/expected.hpp"
#include "moatctl/check/check.hpp"
#include "tests/moatctl/kernel_lab.hpp"
#include "tests/moatctl/random_configuration.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>

namespace
{

using namespace moatctl;

struct Checked {
    Configuration configuration;
    Expected expected;
    bool withoutErrors = true;
    std::set<const Row*> wrong; // rows with an error; null stands for a missing row of policies
};

void checkInto(Checked& checked)
{
    checked.expected = expectedOf(checked.configuration);
    for (const Problem& problem : checkConfiguration(checked.configuration)) {
        if (problem.severity != Severity::Error)
            continue;
        checked.withoutErrors = false;
        const schema::Table& table = *findTable(problem.table);
        checked.wrong.insert(checked.configuration.find(table.id, problem.id));
    }
}

// The daemon's own lines have no row, and neither have the policies when their row is missing.
bool isWanted(const Checked& checked, const ExpectedLine& line)
{
    const bool isPolicy = line.text.starts_with("ebtables -P INPUT ") || line.text.starts_with("ebtables -P FORWARD ");
    return (line.origin == nullptr && !isPolicy) || !checked.wrong.contains(line.origin);
}

std::string restoreFine(const Checked& checked)
{
    Expected fine;
    std::ranges::copy_if(checked.expected.lines, std::back_inserter(fine.lines),
                         [&](const ExpectedLine& line) { return isWanted(checked, line); });
    return test::restore(fine);
}

TEST(CheckAgreesWithTheTool, OverRandomConfigurations)
{
    if (!test::enterNamespace())
        GTEST_SKIP() << "no network namespace with bridge tables here";
    constexpr unsigned configurations = 500;
    constexpr int wrongOneIn = 40;
    unsigned clean = 0;
    unsigned errors = 0;
    for (unsigned seed = 1; seed <= configurations; ++seed) {
        test::Random random(seed);
        Checked checked;
        checked.configuration = test::randomConfiguration(random, seed % 2 == 0 ? 0 : wrongOneIn);
        checkInto(checked);
        clean += checked.withoutErrors ? 1 : 0;
        errors += static_cast<unsigned>(checked.wrong.size());
        // Nothing that check finds no error in is refused: without errors, that is every line.
        ASSERT_EQ(restoreFine(checked), "") << "seed " << seed;
    }
    EXPECT_GT(clean, configurations / 4);
    EXPECT_GT(errors, configurations / 4);
}

} // namespace
