#include "compiled/compile.hpp"
#include "compiled/mark.hpp"
#include "compiled/summary.hpp"
#include "ebtables/line_parser.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using compiled::ClassSummary;

ebtables::Table forwarding(const std::vector<std::string>& rules)
{
    ebtables::Table table = ebtables::emptyTable();
    for (const std::string& rule : rules)
        table.find("FORWARD")->rules.push_back({rule, ebtables::parseRule(rule, "FORWARD"), {}, ebtables::noOrigin});
    compiled::mark(table);
    return table;
}

const ClassSummary* find(const std::vector<ClassSummary>& all, const std::string& in, const std::string& out)
{
    for (const ClassSummary& each : all) {
        if (each.chain == "FORWARD" && each.in == in && each.out == out)
            return &each;
    }
    return nullptr;
}

TEST(ProgramSummary, TellsForEachPairOfPortsWhatThereIs)
{
    std::vector<std::string> rules;
    for (int i = 10; i < 30; ++i)
        rules.push_back("-i a -o b -s 02:00:00:00:00:" + std::to_string(i) + " -j DROP");
    rules.emplace_back("-i a -o b -j ACCEPT");
    rules.emplace_back("-i a -o c -s 02:00:00:00:00:01 -j DROP");
    rules.emplace_back("-i d -s 02:00:00:00:00:01 -j DROP");
    const auto program = compiled::compile(forwarding(rules));
    ASSERT_TRUE(program);
    const std::vector<ClassSummary> all = compiled::summaryOf(*program);

    const ClassSummary* many = find(all, "a", "b");
    ASSERT_NE(many, nullptr);
    EXPECT_EQ(many->maps, 1U);
    EXPECT_EQ(many->elements, 20U);
    EXPECT_EQ(many->rules, 1U);
    EXPECT_LE(many->steps, 4U);
    const ClassSummary* one = find(all, "a", "c");
    ASSERT_NE(one, nullptr);
    EXPECT_EQ((std::vector{one->maps, one->elements, one->rules}), (std::vector<std::size_t>{0, 0, 1}));
    ASSERT_NE(find(all, "d", ""), nullptr);
    const ClassSummary* rest = find(all, "", "");
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->rules, 0U);
}

TEST(ProgramSummary, OfNoRulesHasNoClasses)
{
    const auto program = compiled::compile(ebtables::emptyTable());
    const std::vector<ClassSummary> all = compiled::summaryOf(*program);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0], (ClassSummary{"INPUT", "", "", 0, 0, 0, 0}));
    EXPECT_EQ(all[1], (ClassSummary{"FORWARD", "", "", 0, 0, 0, 0}));
}

} // namespace
