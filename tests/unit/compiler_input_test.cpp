#include "compiled/mark.hpp"
#include "platform_linux/compiled/compiler_input.hpp"
#include "platform_linux/queue/rule_pool.hpp"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace
{

using zol::cfg::CompilerInput;
using zol::cfg::RulePool;
using zol::cfg::TableImage;

TableImage imageOf(const std::vector<RulePool::Text>& rules)
{
    TableImage image = TableImage::untouched();
    zol::cfg::ImageChain& chain = image.chains["User"];
    chain.policy = "RETURN";
    for (const RulePool::Text text : rules)
        chain.rules.emplace_back().text = text;
    return image;
}

void expectAsMadeAnew(const CompilerInput& input, const std::vector<RulePool::Text>& rules)
{
    const ebtables::Chain* chain = input.table().find("User");
    ASSERT_NE(chain, nullptr);
    ASSERT_EQ(chain->rules.size(), rules.size());
    compiled::Marker marker("User");
    for (std::size_t i = 0; i < rules.size(); ++i) {
        ASSERT_EQ(chain->rules[i].text, *rules[i]) << i;
        ASSERT_TRUE(chain->rules[i].rule) << i;
        ASSERT_EQ(ebtables::toText(*chain->rules[i].rule), *rules[i]) << i;
        ASSERT_EQ(chain->rules[i].origin, marker.rule(*rules[i])) << i;
    }
}

TEST(CompilerInput, AfterAnyChangesIsAsIfMadeAnew)
{
    std::mt19937 engine(5);
    RulePool pool;
    CompilerInput input;
    std::vector<RulePool::Text> rules;
    for (int i = 0; i < 500; ++i) {
        const auto at = rules.begin() + static_cast<std::ptrdiff_t>(engine() % (rules.size() + 1));
        if (at != rules.end() && engine() % 3 == 0)
            rules.erase(at);
        else
            rules.insert(at, pool.add("-s 02:00:00:00:00:" + std::to_string(10 + engine() % 40) + " -j DROP"));
        if (engine() % 10 == 0)
            pool.sweep([&](RulePool::Text text) { return std::ranges::find(rules, text) != rules.end(); });
        EXPECT_TRUE(input.update(imageOf(rules), pool.sweeps()));
        EXPECT_FALSE(input.update(imageOf(rules), pool.sweeps()));
        expectAsMadeAnew(input, rules);
    }
}

// A text that was swept away leaves its place to another one.
TEST(CompilerInput, ComparesTextsWhereTheirPlacesSayNothing)
{
    std::string text = "-s 02:00:00:00:00:01 -j DROP";
    CompilerInput input;
    EXPECT_TRUE(input.update(imageOf({&text}), 7));
    text = "-s 02:00:00:00:00:02 -j DROP";
    EXPECT_TRUE(input.update(imageOf({&text}), 8));
    expectAsMadeAnew(input, {&text});
    EXPECT_FALSE(input.update(imageOf({&text}), 9));
}

} // namespace
