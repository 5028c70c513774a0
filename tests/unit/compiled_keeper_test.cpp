#include "compiled/compile.hpp"
#include "compiled/difference.hpp"
#include "compiled/keeper.hpp"
#include "compiled/mark.hpp"
#include "compiled/numbers.hpp"
#include "ebtables/line_parser.hpp"
#include "tests/compiled/outcome.hpp"
#include "tests/compiled/random_rules.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace
{

using compiled::Difference;
using compiled::Program;

// Rules of two forms that take turns, between two ports, for each of these numbers.
ebtables::Table inTurns(const std::vector<int>& numbers)
{
    ebtables::Table table = ebtables::emptyTable();
    for (const int number : numbers) {
        ebtables::TableRule rule;
        rule.text = std::string("-i a -o b ") + (number % 2 == 0 ? "-s" : "-d") + " 02:00:00:00:0" +
                    std::to_string(number / 100) + ":" + std::to_string(number % 100 / 10) +
                    std::to_string(number % 10) + (number % 2 == 0 ? " -j DROP" : " -j ACCEPT");
        rule.rule = ebtables::parseRule(rule.text, "FORWARD");
        EXPECT_TRUE(rule.rule) << rule.text;
        table.find("FORWARD")->rules.push_back(rule);
    }
    compiled::mark(table);
    return table;
}

std::vector<int> numbersUpTo(int end)
{
    std::vector<int> numbers;
    for (int i = 0; i < end; ++i)
        numbers.push_back(i);
    return numbers;
}

std::size_t elementsIn(const Difference& difference)
{
    std::size_t count = 0;
    for (const Difference::Elements& changes : difference.elements)
        count += changes.gone.size() + changes.added.size();
    return count;
}

bool isElementsOnly(const Difference& difference)
{
    Difference others = difference;
    others.elements.clear();
    return others.empty();
}

// As the kernel gives it back: in no certain order, and with lists of its own.
Program readBack(const Program& program, std::mt19937& engine)
{
    Program held;
    for (const compiled::Chain& chain : program.chains) {
        compiled::Chain& copy = held.chains.emplace_back(chain);
        copy.steps.edit();
    }
    for (const compiled::Map& map : program.maps) {
        compiled::Map& copy = held.maps.emplace_back(map);
        std::ranges::shuffle(copy.elements.edit(), engine);
    }
    return held;
}

void expectSameFates(const ebtables::Table& table, const Program& program, test::RandomRules& random, int frames,
                     const std::string& when)
{
    for (int i = 0; i < frames; ++i) {
        const test::RawFrame frame = random.frame(table);
        const test::Outcome plain = test::walk(table, frame);
        const test::Outcome compiled = test::run(program, frame);
        ASSERT_EQ(plain.accepted, compiled.accepted) << when;
        ASSERT_EQ(plain.counted, compiled.counted) << when;
        ASSERT_EQ(plain.logs, compiled.logs) << when;
    }
}

TEST(Keeper, MakesWhatCompileMakes)
{
    const ebtables::Table table = inTurns(numbersUpTo(100));
    compiled::Keeper keeper;
    const Program program = keeper.compile(table).value();
    EXPECT_TRUE(compiled::difference(program, compiled::compile(table).value()).empty());
    const Program again = keeper.compile(table, &program).value();
    EXPECT_TRUE(compiled::difference(program, again).empty());
    for (std::size_t i = 0; i < program.maps.size(); ++i) // nothing was made anew
        EXPECT_TRUE(again.maps[i].elements.isSharedWith(program.maps[i].elements)) << program.maps[i].name;
}

// The kernel walks maps of verdicts once for each way that leads to them.
TEST(Keeper, WhatDecidesInARaceAreNumbersOfFewVerdicts)
{
    const Program program = compiled::compile(inTurns(numbersUpTo(100))).value();
    int numbered = 0;
    for (std::size_t i = 0; i < program.maps.size(); ++i) {
        const compiled::Map& map = program.maps[i];
        EXPECT_EQ(map.numbers, map.counts) << map.name;
        if (!map.numbers)
            continue;
        ++numbered;
        ASSERT_LT(i + 1, program.maps.size());
        EXPECT_EQ(program.maps[i + 1], compiled::meaningsOf(map));
    }
    EXPECT_EQ(numbered, 2);
}

TEST(Numbers, MeanTheVerdictsThatAreThere)
{
    using Kind = compiled::Verdict::Kind;
    compiled::Map map;
    map.name = "m";
    map.elements = {{{1}, {}, {Kind::Drop, {}}}, {{2}, {}, {Kind::Goto, "log/x"}}, {{3}, {}, {Kind::Goto, "log/x"}}};
    const compiled::Map meanings = compiled::meaningsOf(map);
    EXPECT_EQ(meanings.name, compiled::nameOfMeanings("m"));
    ASSERT_EQ(meanings.elements.size(), 4U); // the three that need no chain, and this one
    for (const compiled::Element& element : map.elements) {
        const auto found =
            std::ranges::find(meanings.elements, compiled::numberOf(element.verdict), &compiled::Element::first);
        ASSERT_NE(found, meanings.elements.end());
        EXPECT_EQ(found->verdict, element.verdict);
    }
    EXPECT_NE(compiled::numberOf({Kind::Goto, "log/x"}), compiled::numberOf({Kind::Goto, "log/y"}));
}

TEST(Keeper, OneRuleMoreOrLessInARaceIsItsOwnElements)
{
    std::vector<int> numbers = numbersUpTo(200);
    compiled::Keeper keeper;
    Program held = keeper.compile(inTurns(numbers)).value();
    for (const auto& [at, number] : {std::pair(0, 300), std::pair(77, 301), std::pair(200, 302)}) {
        numbers.insert(numbers.begin() + at, number);
        Program wanted = keeper.compile(inTurns(numbers), &held).value();
        Difference difference = compiled::difference(held, wanted);
        EXPECT_TRUE(isElementsOnly(difference));
        EXPECT_EQ(elementsIn(difference), 2U) << number;
        held = wanted;
        numbers.erase(numbers.begin() + at / 2);
        wanted = keeper.compile(inTurns(numbers), &held).value();
        difference = compiled::difference(held, wanted);
        EXPECT_TRUE(isElementsOnly(difference));
        EXPECT_EQ(elementsIn(difference), 2U) << number;
        held = wanted;
    }
}

// After a kill: what the kernel has may have other places than a new process would give.
TEST(Keeper, GoesOnFromWhatTheKernelHas)
{
    std::mt19937 engine(1);
    std::vector<int> numbers = numbersUpTo(100);
    compiled::Keeper first;
    Program held = first.compile(inTurns(numbers)).value();
    for (int number = 100; number < 150; ++number) { // places that are not evenly spread
        numbers.insert(numbers.begin() + 50, number);
        held = first.compile(inTurns(numbers), &held).value();
    }
    EXPECT_FALSE(compiled::difference(held, compiled::compile(inTurns(numbers)).value()).empty());
    const Program found = readBack(held, engine);
    compiled::Keeper second;
    EXPECT_TRUE(compiled::difference(found, second.compile(inTurns(numbers), &found).value()).empty());
    numbers.erase(numbers.begin() + 20);
    compiled::Keeper third;
    EXPECT_EQ(elementsIn(compiled::difference(found, third.compile(inTurns(numbers), &found).value())), 2U);
}

// A commit that failed, or somebody else's change of the table: what was made last is not what is there.
TEST(Keeper, GoesOnFromAnotherProgramThanItsLast)
{
    std::mt19937 engine(2);
    std::vector<int> numbers = numbersUpTo(100);
    compiled::Keeper keeper;
    const Program held = keeper.compile(inTurns(numbers)).value();
    numbers.insert(numbers.begin() + 10, 200);
    EXPECT_EQ(elementsIn(compiled::difference(held, keeper.compile(inTurns(numbers), &held).value())), 2U);
    numbers.insert(numbers.begin() + 20, 202);
    EXPECT_EQ(elementsIn(compiled::difference(held, keeper.compile(inTurns(numbers), &held).value())), 4U);
    Program other = readBack(held, engine);
    other.maps.pop_back();
    const Program wanted = keeper.compile(inTurns(numbers), &other).value();
    EXPECT_TRUE(compiled::difference(wanted, compiled::compile(inTurns(numbers), &wanted).value()).empty());
}

TEST(Keeper, OneRuleLessOfAPageChangesThatPage)
{
    ebtables::Table table = ebtables::emptyTable();
    for (int port = 1; port <= 1000; ++port) {
        ebtables::TableRule rule;
        rule.text = "-i a -o b -p 0x800 --ip-protocol 6 --ip-destination-port " + std::to_string(port) + ":" +
                    std::to_string(port + 10) + " -j DROP";
        rule.rule = ebtables::parseRule(rule.text, "FORWARD");
        table.find("FORWARD")->rules.push_back(rule);
    }
    compiled::mark(table);
    compiled::Keeper keeper;
    const Program held = keeper.compile(table).value();
    auto& rules = table.find("FORWARD")->rules;
    std::size_t written = 0;
    std::size_t pages = 0;
    for (int i = 0; i < 10; ++i) {
        ebtables::TableRule taken = rules[static_cast<std::size_t>(100 * i)];
        rules.erase(rules.begin() + 100 * i);
        const Program wanted = keeper.compile(table, &held).value();
        const Difference difference = compiled::difference(held, wanted);
        EXPECT_TRUE(difference.elements.empty());
        for (const auto& [from, to] : difference.refilled)
            written += wanted.chains[to].steps.size();
        pages += difference.refilled.size();
        rules.insert(rules.begin() + 100 * i, std::move(taken));
    }
    EXPECT_GE(pages, 10U);
    EXPECT_LT(written, 10 * 150U); // of a thousand each
}

TEST(Keeper, ARuleThatIsNotKnownInFullIsNotCompiled)
{
    ebtables::Table table = inTurns(numbersUpTo(20));
    compiled::Keeper keeper;
    EXPECT_TRUE(keeper.compile(table));
    table.find("FORWARD")->rules.push_back({"--limit 3/sec -j ACCEPT", std::nullopt, {}, 1});
    EXPECT_FALSE(keeper.compile(table));
    table.find("FORWARD")->rules.pop_back();
    EXPECT_TRUE(keeper.compile(table));
}

// Whatever has changed: the program is the one that compile() makes, each frame has its fate, and what is there already
// stays. MOATKEEPER_CHANGES in the environment says how many changes.
TEST(Keeper, AfterAnyChangesItIsAsIfMadeAnew)
{
    const char* wantedChanges = std::getenv("MOATKEEPER_CHANGES");
    const unsigned long changes = wantedChanges != nullptr ? std::strtoul(wantedChanges, nullptr, 10) : 120;
    constexpr unsigned long changesEach = 12;
    std::size_t stayed = 0;
    for (unsigned seed = 0; seed < changes / changesEach; ++seed) {
        std::mt19937 engine(seed);
        const auto next = [&](std::size_t below) { return engine() % below; };
        test::RandomRules random(next);
        ebtables::Table table = random.table(1 + engine() % (seed % 4 == 3 ? 400 : 100), seed % 2 == 0);
        compiled::Keeper keeper;
        Program held;
        for (unsigned long i = 0; i < changesEach; ++i) {
            const std::string when = "seed " + std::to_string(seed) + ", change " + std::to_string(i);
            const Program wanted = keeper.compile(table, &held).value();
            const Program anew = compiled::compile(table, &held).value();
            EXPECT_TRUE(compiled::difference(anew, wanted).empty()) << when;
            ASSERT_NO_FATAL_FAILURE(expectSameFates(table, wanted, random, 30, when));
            for (const compiled::Map& map : wanted.maps)
                stayed += std::ranges::any_of(held.maps, [&](const compiled::Map& before) {
                    return !map.elements.empty() && before.elements.isSharedWith(map.elements);
                });
            if (next(10) == 0)
                held = readBack(wanted, engine);
            else if (next(20) != 0) // otherwise the kernel did not take it
                held = wanted;
            random.change(table, seed % 2 == 0);
        }
    }
    EXPECT_GT(stayed, changes / 4);
}

} // namespace
