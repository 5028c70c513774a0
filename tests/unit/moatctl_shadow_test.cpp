#include "ebtables/model.hpp"
#include "moatctl/bridge/cover_index.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/shadow.hpp"
#include "moatctl/bridge/walk.hpp"
#include "tests/moatctl/random_configuration.hpp"
#include "tests/unit/rounds.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <span>
#include <vector>

namespace
{

using namespace moatctl;

// No frame may reach a rule that was called unreachable.
TEST(Shadow, NeverNamesARuleThatAFrameReaches)
{
    constexpr int frames = test::rounds(10'000);
    std::size_t named = 0;
    for (unsigned seed = 1; seed <= 25; ++seed) {
        test::Random random(seed);
        const Configuration configuration = test::randomConfiguration(random, 0);
        const Applied applied = apply(expectedOf(configuration));
        std::set<const ebtables::TableRule*> unreachable;
        for (const Shadowed& shadowed : findShadowed(applied.table))
            unreachable.insert(shadowed.rule);
        named += unreachable.size();
        for (int i = 0; i < frames; ++i) {
            const Frame frame = test::randomFrame(random);
            for (const Step& step : walk(applied.table, frame).steps)
                ASSERT_FALSE(step.rule != nullptr && step.result.answer == Answer::Yes &&
                             unreachable.contains(step.rule))
                    << "seed " << seed << ", " << step.chain->name << " rule " << step.position + 1;
        }
    }
    EXPECT_GT(named, 25U); // the test looked at something
}

// A rule that leads to the chain; null when there is none.
const ebtables::Rule* jumpTo(const ebtables::Table& table, const std::string& name)
{
    for (const ebtables::Chain& chain : table.chains) {
        for (const ebtables::TableRule& rule : chain.rules) {
            if (rule.rule->target == name)
                return &*rule.rule;
        }
    }
    return nullptr;
}

// The index leaves out only what does not cover.
TEST(Shadow, TheIndexFindsAllThatCover)
{
    std::size_t covering = 0;
    std::size_t left = 0;
    for (unsigned seed = 1; seed <= 40; ++seed) {
        test::Random random(seed);
        const Configuration configuration = test::randomConfiguration(random, 0);
        const Applied applied = apply(expectedOf(configuration));
        std::vector<ebtables::Conjunction> all;
        CoverIndex index;
        for (const ebtables::Chain& chain : applied.table.chains) {
            for (const ebtables::TableRule& rule : chain.rules) {
                all.push_back({&*rule.rule});
                if (const ebtables::Rule* jump = jumpTo(applied.table, chain.name))
                    all.back().insert(all.back().begin(), jump);
                index.add(all.back(), all.size() - 1);
            }
        }
        for (const ebtables::Conjunction& inner : all) {
            std::set<std::size_t> found;
            index.find(inner, [&](std::span<const std::size_t> numbers) {
                EXPECT_TRUE(std::ranges::is_sorted(numbers));
                found.insert(numbers.begin(), numbers.end());
            });
            for (std::size_t outer = 0; outer < all.size(); ++outer) {
                if (covers(all[outer], inner)) {
                    ++covering;
                    ASSERT_TRUE(found.contains(outer)) << "seed " << seed;
                }
            }
            left += all.size() - found.size();
        }
    }
    EXPECT_GT(covering, 1000U);
    EXPECT_GT(left, covering); // it leaves out something
}

ebtables::Command append(const std::string& chain, const std::string& options)
{
    const std::optional<ebtables::Rule> rule = ebtables::parseRule(options, chain);
    EXPECT_TRUE(rule) << options;
    return {ebtables::CommandKind::Append, chain, 1, "", rule.value_or(ebtables::Rule())};
}

// Whether `later` is out of reach behind `earlier`.
bool shadows(const std::string& earlier, const std::string& later)
{
    ebtables::TableModel model;
    model.apply(append("FORWARD", earlier));
    model.apply(append("FORWARD", later));
    return !findShadowed(model.table()).empty();
}

TEST(Shadow, LooksAtEveryKindOfMatch)
{
    EXPECT_TRUE(shadows("-i eth0 -j DROP", "-i eth0 -s 02:00:00:00:00:01 -j ACCEPT"));
    EXPECT_FALSE(shadows("-i eth0 -s 02:00:00:00:00:01 -j DROP", "-i eth0 -j ACCEPT"));
    EXPECT_TRUE(shadows("-i eth+ -j DROP", "-i eth0 -j ACCEPT"));
    EXPECT_FALSE(shadows("-i eth0 -j DROP", "-i eth+ -j ACCEPT"));
    EXPECT_TRUE(shadows("-i ! eth1 -j DROP", "-i eth0 -j ACCEPT"));
    EXPECT_FALSE(shadows("-i ! eth0 -j DROP", "-i eth0 -j ACCEPT"));
    EXPECT_TRUE(shadows("-s 02:00:00:00:00:00/ff:ff:ff:ff:ff:fe -j DROP", "-s 02:00:00:00:00:01 -j ACCEPT"));
    EXPECT_FALSE(shadows("-s 02:00:00:00:00:00/ff:ff:ff:ff:ff:fe -j DROP", "-s 02:00:00:00:00:02 -j ACCEPT"));
    EXPECT_TRUE(shadows("-p IPv4 --ip-source 10.0.0.0/8 -j DROP", "-p IPv4 --ip-source 10.1.0.0/16 -j ACCEPT"));
    EXPECT_FALSE(shadows("-p IPv4 --ip-source 10.1.0.0/16 -j DROP", "-p IPv4 --ip-source 10.0.0.0/8 -j ACCEPT"));
    EXPECT_TRUE(
        shadows("-p IPv4 --ip-protocol tcp -j DROP", "-p IPv4 --ip-protocol tcp --ip-destination-port 80 -j ACCEPT"));
    EXPECT_FALSE(
        shadows("-p IPv4 --ip-protocol tcp --ip-destination-port 80 -j DROP", "-p IPv4 --ip-protocol tcp -j ACCEPT"));
    EXPECT_TRUE(shadows("-p 802_1Q -j DROP", "-p 802_1Q --vlan-id 5 -j ACCEPT"));
    EXPECT_FALSE(shadows("-p 802_1Q --vlan-id 5 -j DROP", "-p 802_1Q --vlan-id 6 -j ACCEPT"));
    // A tag hides the ethertype behind it.
    EXPECT_FALSE(shadows("-p IPv4 -j DROP", "-p 802_1Q --vlan-id 5 --vlan-encap IPv4 -j ACCEPT"));
    EXPECT_FALSE(shadows("-i eth0 -j CONTINUE", "-i eth0 -j ACCEPT"));
}

TEST(Shadow, SeesTheEndOfAChainAndWhatLeavesItEarlier)
{
    const auto model = [](bool withReturn) {
        ebtables::TableModel result;
        result.apply({ebtables::CommandKind::NewChain, "white", 1, "", {}});
        result.apply({ebtables::CommandKind::Policy, "white", 1, "DROP", {}});
        if (withReturn)
            result.apply(append("white", "-s 02:00:00:00:00:01 -j RETURN"));
        result.apply(append("FORWARD", "-i eth0 -j white"));
        result.apply(append("FORWARD", "-i eth0 -j ACCEPT"));
        return result;
    };
    const ebtables::TableModel closed = model(false);
    EXPECT_EQ(findShadowed(closed.table()).size(), 1U);
    const ebtables::TableModel open = model(true);
    EXPECT_TRUE(findShadowed(open.table()).empty());
}

// The kinds of a rule's values must not make it slow.
TEST(Shadow, TakesAboutLinearTime)
{
    ebtables::TableModel model;
    for (int i = 0; i < 10'000; ++i) {
        const std::string address = "10." + std::to_string(i / 250) + '.' + std::to_string(i % 250) + ".0/24";
        model.apply(append("FORWARD", "-i eth0 -p IPv4 --ip-source " + address + " -j DROP"));
    }
    EXPECT_TRUE(findShadowed(model.table()).empty());
}

} // namespace
