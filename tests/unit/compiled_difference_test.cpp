#include "compiled/compile.hpp"
#include "compiled/difference.hpp"
#include "compiled/mark.hpp"
#include "tests/compiled/random_rules.hpp"
#include "tests/unit/rounds.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{

using compiled::Bytes;
using compiled::Chain;
using compiled::Difference;
using compiled::Element;
using compiled::Map;
using compiled::Program;
using compiled::Step;
using compiled::Verdict;

Element element(std::uint8_t key, Verdict::Kind kind = Verdict::Kind::Drop, ebtables::Origin origin = 1)
{
    return {{key}, {key}, {kind, {}}, 0, origin};
}

Map mapOf(const std::string& name, std::vector<Element> elements)
{
    return {name, {1}, false, true, false, false, std::move(elements)};
}

Step lookUp(std::size_t map)
{
    return {{}, compiled::LookUp{map, {{{compiled::Header::Link, 0, 1}, {0xff}}}}};
}

// ---- what a program is, without the order of what has a name

struct Plain {
    struct Steps {
        compiled::Hook hook = compiled::Hook::None;
        bool drops = false;
        std::vector<std::pair<Step, std::string>> steps; // and the maps that each looks up
        bool operator==(const Steps&) const = default;
    };
    struct Elements {
        Map map; // without its elements
        std::map<Bytes, Element> elements;
        bool operator==(const Elements&) const = default;
    };
    std::map<std::string, Steps> chains;
    std::map<std::string, Elements> maps;
    bool operator==(const Plain&) const = default;
};

void put(Plain& plain, const Program& program, const Chain& chain)
{
    Plain::Steps steps{chain.hook, chain.dropsByPolicy, {}};
    for (Step step : chain.steps) {
        std::string map;
        const auto name = [&](compiled::LookUp& lookUp) {
            map += program.maps[std::exchange(lookUp.map, 0)].name + '|';
        };
        if (auto* lookUp = std::get_if<compiled::LookUp>(&step.action))
            name(*lookUp);
        if (auto* lead = std::get_if<compiled::Lead>(&step.action)) {
            name(lead->place);
            if (lead->than)
                name(*lead->than);
        }
        steps.steps.emplace_back(std::move(step), map);
    }
    plain.chains[chain.name] = std::move(steps);
}

void put(Plain& plain, const Map& map)
{
    Plain::Elements& here = plain.maps[map.name] = {map, {}};
    here.map.elements.clear();
    for (const Element& each : map.elements)
        EXPECT_TRUE(here.elements.emplace(each.first, each).second) << map.name;
}

Plain plainOf(const Program& program)
{
    Plain plain;
    for (const Chain& chain : program.chains)
        put(plain, program, chain);
    for (const Map& map : program.maps)
        put(plain, map);
    return plain;
}

// What the difference makes of the first program.
Plain changed(const Program& from, const Program& to, const Difference& difference)
{
    Plain plain = plainOf(from);
    for (const std::size_t gone : difference.goneChains)
        plain.chains.erase(from.chains[gone].name);
    for (const std::size_t gone : difference.goneMaps)
        plain.maps.erase(from.maps[gone].name);
    for (const std::size_t added : difference.newMaps)
        put(plain, to.maps[added]);
    for (const Difference::Elements& changes : difference.elements) {
        auto& elements = plain.maps[from.maps[changes.from].name].elements;
        for (const std::size_t gone : changes.gone)
            EXPECT_EQ(elements.erase(from.maps[changes.from].elements[gone].first), 1U);
        for (const std::size_t added : changes.added) {
            const Element& each = to.maps[changes.to].elements[added];
            EXPECT_TRUE(elements.emplace(each.first, each).second);
        }
    }
    for (const std::size_t added : difference.newChains)
        put(plain, to, to.chains[added]);
    for (const auto& [before, after] : difference.refilled)
        put(plain, to, to.chains[after]);
    return plain;
}

// ----

TEST(ProgramDifference, IsNothingBetweenEqualOnesWhateverTheirOrder)
{
    Program one;
    one.chains = {{"A", compiled::Hook::Input, false, {lookUp(0), lookUp(1)}}, {"B", {}, false, {}}};
    one.maps = {mapOf("m", {element(1), element(2), element(3)}), mapOf("n", {element(1)})};
    Program other;
    other.chains = {{"B", {}, false, {}}, {"A", compiled::Hook::Input, false, {lookUp(1), lookUp(0)}}};
    other.maps = {mapOf("n", {element(1)}), mapOf("m", {element(3), element(1), element(2)})};
    EXPECT_TRUE(compiled::difference(one, one).empty());
    EXPECT_TRUE(compiled::difference(one, other).empty());
    EXPECT_TRUE(compiled::difference(other, one).empty());
    EXPECT_TRUE(compiled::difference({}, {}).empty());
}

TEST(ProgramDifference, OfOneElementIsThatElement)
{
    Program one;
    one.maps = {mapOf("m", {element(1), element(2), element(3)})};
    Program other = one;
    other.maps[0].elements = {element(1), element(4), element(3), element(5)};
    const Difference more = compiled::difference(one, other);
    Difference expected;
    expected.elements = {{0, 0, {1}, {1, 3}}};
    EXPECT_EQ(more, expected);

    other = one;
    other.maps[0].elements.edit()[1] = element(2, Verdict::Kind::Accept);
    expected.elements = {{0, 0, {1}, {1}}};
    EXPECT_EQ(compiled::difference(one, other), expected);
    other.maps[0].elements.edit()[1] = element(2, Verdict::Kind::Drop, 7); // another rule's counter
    EXPECT_EQ(compiled::difference(one, other), expected);
}

TEST(ProgramDifference, AMapOfAnotherFormIsAnotherMap)
{
    Program one;
    one.chains = {{"A", compiled::Hook::Input, false, {lookUp(0)}}};
    one.maps = {mapOf("m", {element(1)})};
    Program other = one;
    other.maps[0].intervals = true;
    Difference expected;
    expected.goneMaps = {0};
    expected.newMaps = {0};
    expected.refilled = {{0, 0}};
    EXPECT_EQ(compiled::difference(one, other), expected);
}

TEST(ProgramDifference, TellsStepsAndPoliciesApart)
{
    Program one;
    one.chains = {{"A", compiled::Hook::Input, false, {{{}, compiled::Jump{"B"}}}}, {"B", {}, false, {}}};
    Program other = one;
    other.chains[0].dropsByPolicy = true;
    Difference expected;
    expected.refilled = {{0, 0}};
    EXPECT_EQ(compiled::difference(one, other), expected);
    other = one;
    other.chains[0].steps.push_back({{}, compiled::Jump{"B"}});
    EXPECT_EQ(compiled::difference(one, other), expected);
    other = one;
    other.chains[1].name = "C";
    expected = {};
    expected.goneChains = {1};
    expected.newChains = {1};
    EXPECT_EQ(compiled::difference(one, other), expected);
}

TEST(ProgramDifference, MakesTheOneTheOther)
{
    for (unsigned seed = 0; seed < test::rounds(15); ++seed) {
        std::mt19937 engine(seed);
        test::RandomRules random([&](std::size_t below) { return engine() % below; });
        ebtables::Table table = random.table(1 + engine() % 200, seed % 2 == 0);
        compiled::mark(table);
        const Program before = compiled::compile(table).value();
        for (ebtables::Chain& chain : table.chains) {
            std::erase_if(chain.rules, [&](const ebtables::TableRule&) { return engine() % 8 == 0; });
            if (chain.rules.size() > 1 && engine() % 2 == 0)
                std::swap(chain.rules.front(), chain.rules.back());
        }
        const Program after =
            seed % 5 == 0 ? compiled::compile(random.table(100, true)).value() : compiled::compile(table).value();
        const Difference difference = compiled::difference(before, after);
        EXPECT_EQ(changed(before, after, difference), plainOf(after)) << "seed " << seed;
        EXPECT_EQ(difference.empty(), plainOf(before) == plainOf(after)) << "seed " << seed;
    }
}

TEST(ProgramDifference, OfOneRuleAmongManyIsFewElements)
{
    ebtables::Table table = ebtables::emptyTable();
    ebtables::Chain& forward = *table.find("FORWARD");
    for (unsigned i = 0; i < 500; ++i) {
        ebtables::Rule rule;
        rule.in = ebtables::InterfaceMatch{"eth0", false, false};
        rule.source.emplace();
        rule.source->address = {2, 0, 0, 0, static_cast<std::uint8_t>(i >> 8U), static_cast<std::uint8_t>(i)};
        rule.source->mask.fill(0xff);
        rule.target = "DROP";
        forward.rules.push_back({"", rule, {}, ebtables::noOrigin});
    }
    compiled::mark(table);
    const Program all = compiled::compile(table).value();
    for (const std::size_t place : {std::size_t{0}, std::size_t{277}, forward.rules.size() - 1}) {
        ebtables::Table less = table;
        auto& rules = less.find("FORWARD")->rules;
        rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(place));
        compiled::mark(less);
        const Difference difference = compiled::difference(all, compiled::compile(less).value());
        ASSERT_EQ(difference.elements.size(), 1U);
        EXPECT_EQ(difference.elements[0].gone.size(), 1U);
        EXPECT_TRUE(difference.elements[0].added.empty());
        EXPECT_TRUE(difference.refilled.empty() && difference.newChains.empty() && difference.goneChains.empty());
    }
}

TEST(Marks, DoNotDependOnOtherRules)
{
    compiled::Marker all("FORWARD");
    compiled::Marker some("FORWARD");
    const ebtables::Origin first = all.rule("-i a -j DROP");
    const ebtables::Origin second = all.rule("-i b -j DROP");
    EXPECT_EQ(some.rule("-i b -j DROP"), second);
    EXPECT_EQ(some.rule("-i a -j DROP"), first);
    EXPECT_NE(compiled::Marker("INPUT").rule("-i a -j DROP"), first);
    EXPECT_NE(all.policy("DROP"), all.policy("ACCEPT"));
}

TEST(Marks, TellEqualRulesApart)
{
    compiled::Marker three("FORWARD");
    compiled::Marker two("FORWARD");
    std::vector<ebtables::Origin> marks;
    for (int i = 0; i < 3; ++i)
        marks.push_back(three.rule("-i a -j DROP"));
    EXPECT_EQ(std::set(marks.begin(), marks.end()).size(), 3U);
    EXPECT_EQ(two.rule("-i a -j DROP"), marks[0]);
    EXPECT_EQ(two.rule("-i a -j DROP"), marks[1]);
    EXPECT_FALSE(std::ranges::count(marks, ebtables::noOrigin));
}

// Few different texts, so that many say the same.
TEST(Mark, OfFewRulesIsWhatItIsAmongAll)
{
    std::mt19937 engine(3);
    const auto rules = [&](std::size_t count) {
        std::vector<ebtables::TableRule> made(count);
        for (ebtables::TableRule& rule : made)
            rule.text = "-s 02:00:00:00:00:0" + std::to_string(engine() % 10) + " -j DROP";
        return made;
    };
    const auto markAll = [](std::vector<ebtables::TableRule>& list) {
        compiled::Marker marker("UserForwardRules");
        for (ebtables::TableRule& rule : list)
            rule.origin = marker.rule(rule.text);
    };
    int alone = 0;
    constexpr int tries = 2000;
    for (int i = 0; i < tries; ++i) {
        std::vector<ebtables::TableRule> list = rules(1 + engine() % 6);
        markAll(list);
        const std::size_t begin = engine() % list.size();
        const std::size_t removed = engine() % (list.size() - begin + 1);
        std::vector<ebtables::TableRule> added = rules(engine() % 4);
        const compiled::TableRules all(list);
        std::vector<ebtables::Origin> given;
        std::ranges::transform(list, std::back_inserter(given), &ebtables::TableRule::origin);
        const compiled::Marks marks(given);
        if (!compiled::markAlone(compiled::Marker("UserForwardRules"), marks.first(begin), all.subspan(begin, removed),
                                 marks.subspan(begin + removed), added))
            continue;
        ++alone;
        const auto at = list.begin() + static_cast<std::ptrdiff_t>(begin);
        list.insert(list.erase(at, at + static_cast<std::ptrdiff_t>(removed)), added.begin(), added.end());
        const std::vector<ebtables::TableRule> found = list;
        markAll(list);
        for (std::size_t j = 0; j < list.size(); ++j)
            ASSERT_EQ(found[j].origin, list[j].origin) << "try " << i << ", rule " << j;
    }
    EXPECT_GT(alone, tries / 10);
    EXPECT_LT(alone, tries);
}

} // namespace
