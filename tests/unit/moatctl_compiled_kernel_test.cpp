#include "compiled/compile.hpp"
#include "compiled/mark.hpp"
#include "ebtables/line_parser.hpp"
#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/compiled_kernel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace
{

using moatctl::Entry;
using moatctl::EntryState;

ebtables::Table forwarding(const std::vector<std::string>& rules)
{
    ebtables::Table table = ebtables::emptyTable();
    for (const std::string& rule : rules)
        table.find("FORWARD")->rules.push_back({rule, ebtables::parseRule(rule, "FORWARD"), {}, ebtables::noOrigin});
    table.find("FORWARD")->policy = "DROP";
    return table;
}

std::string source(int number)
{
    return "-s 02:00:00:00:00:" + std::to_string(number) + " -i a -o b -j ACCEPT";
}

std::vector<std::string> sources(int first, int last)
{
    std::vector<std::string> rules;
    for (int i = first; i < last; ++i)
        rules.push_back(source(i));
    return rules;
}

// As the kernel would hold what is made of the table; every place has counted as many frames as its number.
nftables::HeldProgram heldOf(ebtables::Table table)
{
    compiled::mark(table);
    nftables::HeldProgram held;
    held.table = 1;
    held.program = compiled::compile(table).value();
    for (const compiled::Chain& chain : held.program.chains)
        held.chains.emplace_back(chain.steps.size());
    for (const compiled::Map& map : held.program.maps) {
        auto& counters = held.maps.emplace_back();
        for (std::uint64_t i = 0; i < map.elements.size(); ++i)
            counters.push_back({i, 60 * i});
    }
    return held;
}

std::size_t count(const std::vector<Entry>& entries, EntryState state)
{
    return static_cast<std::size_t>(std::ranges::count(entries, state, &Entry::state));
}

TEST(CompiledKernel, ComesBackAsTheRulesThatItWasMadeOf)
{
    const ebtables::Table wanted = forwarding(sources(10, 30));
    const ebtables::Table table = moatctl::asRules(ebtables::emptyTable(), heldOf(wanted), wanted);
    const std::vector<Entry> entries = moatctl::compare(wanted, table);
    EXPECT_EQ(count(entries, EntryState::Same), entries.size());
    std::uint64_t frames = 0;
    for (const ebtables::TableRule& rule : table.find("FORWARD")->rules)
        frames += rule.counters.value().packets;
    EXPECT_EQ(frames, 19U * 20U / 2U);
    EXPECT_EQ(table.find("FORWARD")->policy, "DROP");
}

TEST(CompiledKernel, TellsWhatIsMissingAndWhatIsThereBeside)
{
    const nftables::HeldProgram held = heldOf(forwarding(sources(10, 30)));
    const ebtables::Table wanted = forwarding(sources(12, 32));
    const std::vector<Entry> entries = moatctl::compare(wanted, moatctl::asRules(ebtables::emptyTable(), held, wanted));
    EXPECT_EQ(count(entries, EntryState::Missing), 2U);
    EXPECT_EQ(count(entries, EntryState::Extra), 3U) << "two elements, and the map that they are in";
}

TEST(CompiledKernel, RulesOfOthersStayInTheirChains)
{
    const ebtables::Table wanted = forwarding(sources(10, 30));
    const ebtables::Table plain = forwarding({"-i theirs -j DROP"});
    const ebtables::Table table = moatctl::asRules(plain, heldOf(wanted), wanted);
    EXPECT_EQ(table.find("FORWARD")->rules.back().text, "-i theirs -j DROP");
    EXPECT_EQ(count(moatctl::compare(wanted, table), EntryState::Extra), 1U);
}

TEST(CompiledKernel, WhatNobodyKnowsIsTold)
{
    const ebtables::Table wanted = forwarding(sources(10, 30));
    nftables::HeldProgram held = heldOf(wanted);
    held.isWhole = false;
    const ebtables::Table table = moatctl::asRules(ebtables::emptyTable(), held, wanted);
    ASSERT_NE(table.find("moatkeeper"), nullptr);
}

} // namespace
