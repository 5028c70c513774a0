#include "compiled/compile.hpp"
#include "compiled/conflicts.hpp"
#include "compiled/describe.hpp"
#include "compiled/dispatch.hpp"
#include "compiled/flatten.hpp"
#include "compiled/key.hpp"
#include "compiled/order.hpp"
#include "compiled/places.hpp"
#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"
#include "tests/compiled/outcome.hpp"
#include "tests/compiled/random_rules.hpp"
#include "tests/unit/rounds.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace
{

using compiled::Item;
using compiled::Program;

// The tables after these commands, written as for the tool, without its name. Each rule is marked with its line's
// number.
ebtables::Table tableOf(const std::vector<std::string>& lines)
{
    ebtables::TableModel model;
    for (const char* chain : {"UserInputRules", "UserForwardRules"}) {
        for (const char* make : {"ebtables -N ", "ebtables -P "}) {
            const std::string end = make[10] == 'P' ? " RETURN" : "";
            model.apply(ebtables::parseLine(make + std::string(chain) + end).commands.at(0));
        }
        const std::string base = chain[4] == 'I' ? "INPUT" : "FORWARD";
        model.apply(ebtables::parseLine("ebtables -A " + base + " -j " + chain).commands.at(0));
    }
    ebtables::Origin origin = 0;
    for (const std::string& line : lines) {
        const ebtables::ParsedLine parsed = ebtables::parseLine("ebtables " + line);
        EXPECT_EQ(parsed.commands.size(), 1U) << line;
        ++origin;
        for (const ebtables::Command& command : parsed.commands)
            EXPECT_FALSE(model.apply(command, origin)) << line;
    }
    return model.table();
}

std::vector<std::string> textOf(const compiled::FlatRules& flat)
{
    std::vector<std::string> texts;
    for (const compiled::FlatRule& rule : flat.rules)
        texts.push_back(ebtables::toText(*rule.rule));
    return texts;
}

std::vector<Item> itemsOf(const std::vector<std::string>& rules)
{
    std::vector<Item> items;
    for (const std::string& rule : rules)
        items.push_back({ebtables::noOrigin, ebtables::parseLine("ebtables -A FORWARD " + rule).commands.at(0).rule});
    return items;
}

// The rules of a class as they are in it.
std::vector<std::string> textOf(const std::vector<Item>& items, const compiled::PortClass& of)
{
    std::vector<std::string> texts;
    for (const std::size_t place : of.rules)
        texts.push_back(ebtables::toText(ruleWithout(of.decided(), items[place].rule)));
    return texts;
}

compiled::Dispatched dispatch(const std::vector<Item>& items)
{
    std::vector<const ebtables::Rule*> rules;
    for (const Item& item : items)
        rules.push_back(&item.rule);
    return compiled::dispatch(rules);
}

using Texts = std::vector<std::string>;

// ---- the steps, one by one

TEST(Flatten, PutsChainsThatAllFramesEnterInTheirPlaces)
{
    const ebtables::Table table =
        tableOf({"-A UserForwardRules -i a -o b -j DROP", "-I FORWARD 1 -i a -o b -j ACCEPT"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("FORWARD"))),
              (Texts{"-i a -o b -j ACCEPT", "-i a -o b -j DROP"}));
}

TEST(Flatten, LeavesAChainWithAReturnWhereItIs)
{
    const ebtables::Table table = tableOf({"-A UserForwardRules -i a -o b -j RETURN"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("FORWARD"))), Texts{"-j UserForwardRules"});
}

TEST(Flatten, MakesAPolicyTheLastRuleOfAChainThatIsJumpedTo)
{
    const ebtables::Table table = tableOf({"-N f", "-P f DROP", "-A f -s 02:00:00:00:00:01 -j RETURN"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("f"))), (Texts{"-s 02:00:00:00:00:01 -j RETURN", "-j DROP"}));
    EXPECT_TRUE(compiled::flatten(table, *table.find("OUTPUT")).rules.empty());
}

TEST(Flatten, ForgetsAPriorityAsTheKernelDoes)
{
    const ebtables::Table table = tableOf({"-A FORWARD -p 0x8100 --vlan-id 3 --vlan-prio 3 -j DROP",
                                           "-A FORWARD -p 0x8100 --vlan-id 0 --vlan-prio 3 -j DROP"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("FORWARD"))),
              (Texts{"-p 0x8100 --vlan-id 3 -j DROP", "-p 0x8100 --vlan-id 0 --vlan-prio 3 -j DROP"}));
}

// A number that the last list has is taken for the rule's: it is the jump that must be looked at anew.
TEST(Flatten, LooksAtAJumpAgain)
{
    ebtables::Table table = tableOf({"-N f", "-P f RETURN", "-A f -s 02:00:00:00:00:01 -j RETURN",
                                     "-A FORWARD -d 02:00:00:00:00:02 -j DROP", "-A FORWARD -j f"});
    std::uint64_t number = 0;
    for (ebtables::Chain& chain : table.chains) {
        for (ebtables::TableRule& rule : chain.rules)
            rule.number = ++number;
    }
    const ebtables::Chain& forward = *table.find("FORWARD");
    std::vector<compiled::RuleTag> before;
    for (const compiled::FlatRule& rule : compiled::flatten(table, forward).rules)
        before.push_back(rule.tag);
    EXPECT_EQ(textOf(compiled::flatten(table, forward, before)), (Texts{"-d 02:00:00:00:00:02 -j DROP", "-j f"}));
    table.find("f")->rules.clear();
    EXPECT_EQ(textOf(compiled::flatten(table, forward, before)), Texts{"-d 02:00:00:00:00:02 -j DROP"});
}

TEST(Flatten, EndsWithChainsThatLeadToThemselves)
{
    const ebtables::Table table = tableOf({"-N f", "-P f RETURN", "-A f -j f", "-A FORWARD -j f"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("FORWARD"))), Texts{"-j f"});
    EXPECT_TRUE(compiled::compile(table));
}

TEST(Dispatch, SortsByPorts)
{
    const std::vector<Item> items =
        itemsOf({"-i a -o b -s 02:00:00:00:00:01 -j DROP", "-o b -s 02:00:00:00:00:02 -j DROP",
                 "-i a -d 02:00:00:00:00:03 -j ACCEPT", "-i c -o b -j DROP"});
    const compiled::Dispatched sorted = dispatch(items);
    ASSERT_EQ(sorted.classes.size(), 3U);
    EXPECT_EQ(sorted.classes[0].out, "b");
    EXPECT_EQ(textOf(items, sorted.classes[0]), (Texts{"-s 02:00:00:00:00:01 -j DROP", "-s 02:00:00:00:00:02 -j DROP",
                                                       "-d 02:00:00:00:00:03 -j ACCEPT"}));
    EXPECT_EQ(sorted.classes[1].in, "c");
    EXPECT_EQ(textOf(items, sorted.classes[1]), (Texts{"-s 02:00:00:00:00:02 -j DROP", "-j DROP"}));
    EXPECT_EQ(sorted.classes[2].in, "a");
    EXPECT_EQ(sorted.classes[2].out, "");
    EXPECT_EQ(textOf(items, sorted.classes[2]), Texts{"-d 02:00:00:00:00:03 -j ACCEPT"});
    EXPECT_EQ(sorted.rest, std::vector<std::size_t>{1});
}

// A hundred rules for every port, and as many ports: a class for each would have ten thousand.
TEST(Dispatch, DoesNotMultiplyRules)
{
    Texts rules;
    for (int i = 0; i < 100; ++i) {
        rules.push_back("-i + -s 02:00:00:00:00:" + std::to_string(10 + i % 80) + " -j DROP");
        rules.push_back("-i p" + std::to_string(i) + " -j DROP");
    }
    const compiled::Dispatched sorted = dispatch(itemsOf(rules));
    EXPECT_TRUE(sorted.classes.empty());
    EXPECT_EQ(sorted.rest.size(), rules.size());
}

TEST(Key, HasWhatTheMatchesSay)
{
    const auto key = compiled::keyOf(
        itemsOf({"-p 0x800 --ip-source 10.0.0.0/8 --ip-protocol 6 --ip-destination-port 80 -j DROP"})[0].rule);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->family, compiled::Family::Ip4);
    using compiled::Part;
    EXPECT_EQ(key->parts, (std::vector{Part::Ip4Source, Part::Ip4Protocol, Part::Ip4DestinationPort}));
    EXPECT_EQ(key->value, (compiled::Bytes{10, 0, 0, 0, 6, 0, 80}));
    EXPECT_EQ(key->mask, (compiled::Bytes{255, 0, 0, 0, 255, 255, 255}));
}

TEST(Key, IsNoneWhereBytesAreNotEnough)
{
    for (const std::string rule : {
             "-s ! 02:00:00:00:00:01 -j DROP", // not these bytes
             "-i p+ -j DROP",                  // the beginning of a name
             "-p LENGTH -j DROP",              // less than
             "-p 0x800 --ip-protocol 6 --ip-destination-port 1:2 -j DROP",
             "-s 02:00:00:00:00:01 -j CONTINUE",            // decides nothing
             "-s 02:00:00:00:00:01 -j f",                   // may come back
             "-p 0x86dd --ip6-protocol 44 -j DROP",         // a header between
             "-p 0x8100 --vlan-id 3 --vlan-prio 3 -j DROP", // the kernel takes no notice of the priority
             "-p 0x86dd --ip6-protocol 6 -j RETURN",        // from behind a jump
         }) {
        const auto commands = ebtables::parseLine("ebtables -A FORWARD " + rule).commands;
        ASSERT_EQ(commands.size(), 1U) << rule;
        EXPECT_FALSE(compiled::keyOf(commands[0].rule)) << rule;
    }
}

// What the tool does not make, nor the kernel take.
TEST(Key, IsNoneForMatchesThatContradictEachOther)
{
    ebtables::Rule rule = itemsOf({"-p 0x800 --ip-protocol 6 --ip-destination-port 80 -j DROP"})[0].rule;
    EXPECT_TRUE(compiled::keyOf(rule));
    rule.ip.protocol.reset();
    EXPECT_FALSE(compiled::keyOf(rule)); // ports of no protocol
    rule = itemsOf({"-p 0x800 --ip-source 10.0.0.1 -j DROP"})[0].rule;
    rule.ethertype->number = 0x806;
    EXPECT_FALSE(compiled::keyOf(rule)); // an IP address elsewhere
    rule.ethertype->number = 0x800;
    rule.ip.source->mask = {255, 255, 255, 0};
    EXPECT_FALSE(compiled::keyOf(rule)); // an address with more bits than its mask
    rule.ip.source->address[3] = 0;
    EXPECT_TRUE(compiled::keyOf(rule));
}

// The names of the groups with their rules' numbers.
std::string orderOf(const Texts& rules)
{
    compiled::Forms forms;
    std::vector<std::unique_ptr<compiled::Known>> known;
    std::vector<compiled::Known*> list;
    for (Item& item : itemsOf(rules)) {
        known.push_back(std::make_unique<compiled::Known>());
        known.back()->item = std::move(item);
        known.back()->findKey({}, forms);
        list.push_back(known.back().get());
    }
    std::string text;
    for (const compiled::Group& group : compiled::order(list)) {
        text += (text.empty() ? "" : "; ") + group.name + ":";
        for (const std::size_t item : group.items)
            text += " " + std::to_string(item + 1);
    }
    return text;
}

TEST(Order, PutsRulesOfAShapeTogether)
{
    EXPECT_EQ(orderOf({"-p 0x806 -j DROP", "-s 02:00:00:00:00:01 -p 0x800 -j DROP", "-p 0x88cc -j ACCEPT",
                       "-s 02:00:00:00:00:02 -p 0x800 -j DROP"}),
              "src.type: 2 4; type: 1 3");
}

TEST(Order, KeepsTheOrderOfRulesThatAFrameMayMatchBoth)
{
    EXPECT_EQ(orderOf({"-p 0x806 -j DROP", "-s 02:00:00:00:00:01 -j ACCEPT", "-p 0x800 -j DROP"}),
              "type: 1; src-2: 2; type-2: 3");
}

TEST(Order, KeepsNetworksWithinEachOtherApart)
{
    EXPECT_EQ(orderOf({"-p 0x800 --ip-source 10.1.0.0/16 -j DROP", "-p 0x800 --ip-source 10.2.0.0/16 -j DROP",
                       "-p 0x800 --ip-source 10.0.0.0/8 -j ACCEPT", "-p 0x800 --ip-source 10.1.0.1 -j ACCEPT"}),
              "ip4.ip-src: 1 2; ip4.ip-src-2: 3; ip4.ip-src-3: 4");
}

TEST(Order, LeavesOutWhatAnEqualRuleStandsBefore)
{
    EXPECT_EQ(orderOf({"-s 02:00:00:00:00:01 -j DROP", "-s 02:00:00:00:00:01 -j ACCEPT"}), "src: 1");
}

// Who meets whom, against each rule compared with each.
TEST(Conflicts, AreBetweenRulesThatFixNothingDifferently)
{
    std::mt19937 engine(3);
    std::size_t found = 0;
    for (int round = 0; round < 60; ++round) {
        std::vector<ebtables::FixedBits> bits;
        std::vector<compiled::FixedForm> forms(1 + engine() % 6);
        std::vector<std::size_t> formOf;
        for (compiled::FixedForm& form : forms) {
            for (const std::size_t word : {0U, 1U, 2U})
                form.mask[word] = word == 0 && round % 2 == 0 ? 0xff : engine() % 4 == 0 ? 0 : 0xf0U >> engine() % 5;
        }
        for (std::size_t i = 0; i < 40; ++i) {
            formOf.push_back(engine() % forms.size());
            forms[formOf.back()].rules.push_back(i);
            ebtables::FixedBits& made = bits.emplace_back(ebtables::Conjunction{});
            made.mask = forms[formOf.back()].mask;
            for (const std::size_t word : {0U, 1U, 2U})
                made.value[word] = engine() % (word == 0 ? 4 : 256) & made.mask[word];
        }
        std::vector<const ebtables::FixedBits*> all;
        for (const ebtables::FixedBits& each : bits)
            all.push_back(&each);
        const compiled::Meetings meetings = compiled::meetings(forms, all);
        for (std::size_t i = 0; i < bits.size(); ++i) {
            for (std::size_t j = 0; j < i; ++j) {
                bool agree = true;
                for (std::size_t word = 0; word < bits[i].mask.size(); ++word)
                    agree = agree && ((bits[i].value[word] ^ bits[j].value[word]) & bits[i].mask[word] &
                                      bits[j].mask[word]) == 0;
                const bool meet = std::ranges::any_of(meetings.of[i], [&](std::uint32_t number) {
                    const compiled::Meeting& meeting = meetings.all[number];
                    return (meeting.form == formOf[i] ? meeting.other : meeting.form) == formOf[j] &&
                           std::ranges::count(meetings.of[j], number) == 1;
                });
                ASSERT_EQ(meet, agree) << round << ": " << i << ", " << j;
                found += meet ? 1 : 0;
            }
        }
    }
    EXPECT_GT(found, 1000U);
}

// ---- places and races

std::vector<unsigned> placesFor(const std::vector<std::optional<compiled::Place>>& before)
{
    const std::vector<compiled::Place> places = compiled::placesFor(before);
    return {places.begin(), places.end()};
}

TEST(Places, HaveRoomBetweenThem)
{
    EXPECT_TRUE(placesFor({}).empty());
    EXPECT_EQ(placesFor({{}, {}, {}}), (std::vector<unsigned>{16384, 32768, 49152}));
}

TEST(Places, AsManyStayAsCan)
{
    EXPECT_EQ(placesFor({100, {}, 300, 200, 400}), (std::vector<unsigned>{100, 133, 166, 200, 400}));
    EXPECT_EQ(placesFor({100, {}, 200}), (std::vector<unsigned>{100, 150, 200}));
    EXPECT_EQ(placesFor({{}, 1, 2}), (std::vector<unsigned>{16384, 32768, 49152})); // none is left before the first
}

TEST(Places, AlwaysAscendAndFewMove)
{
    std::mt19937 engine(1);
    std::vector<std::optional<compiled::Place>> known;
    std::size_t moved = 0;
    constexpr std::size_t changes = test::rounds(1500);
    for (std::size_t i = 0; i < changes; ++i) {
        const auto at = known.begin() + static_cast<std::ptrdiff_t>(engine() % (known.size() + 1));
        if (i % 3 == 2 && at != known.end())
            std::rotate(at, at + 1, known.end()); // to the end
        else
            known.insert(i % 2 == 0 ? at : known.begin() + static_cast<std::ptrdiff_t>(known.size() / 2), std::nullopt);
        const std::vector<compiled::Place> places = compiled::placesFor(known);
        ASSERT_EQ(places.size(), known.size());
        for (std::size_t j = 0; j < places.size(); ++j) {
            ASSERT_LT(j == 0 ? 0 : places[j - 1], places[j]);
            moved += known[j] && *known[j] != places[j] ? 1 : 0;
            known[j] = places[j];
        }
    }
    EXPECT_LT(moved, 20 * changes); // half of them at one and the same place
}

TEST(Places, ThereIsOneForEach)
{
    const std::vector<unsigned> all = placesFor(std::vector<std::optional<compiled::Place>>(compiled::mostInRace));
    EXPECT_EQ(std::ranges::adjacent_find(all, std::greater_equal<>()), all.end());
}

// Two forms take turns, and a frame from one to the other matches both.
Texts inTurns(int rules)
{
    Texts lines;
    for (int i = 0; i < rules; ++i) {
        const std::string number = std::to_string(10 + i / 2);
        lines.push_back(std::string("-A UserForwardRules -i a -o b ") + (i % 2 == 0 ? "-s" : "-d") +
                        " 02:00:00:00:00:" + number + " -j " + (i % 2 == 0 ? "DROP" : "ACCEPT"));
    }
    return lines;
}

TEST(Race, AsksEachFormAndWhatMayOvertakeIt)
{
    const std::optional<Program> program = compiled::compile(tableOf(inTurns(20)));
    ASSERT_TRUE(program);
    EXPECT_EQ(
        describe(*program),
        "INPUT (policy ACCEPT)\n"
        "FORWARD (policy ACCEPT)\n"
        "  look up in.out in FORWARD/ports (1)\n"
        "FORWARD/a/b/race/dst\n"
        "  place of src in FORWARD/a/b/race/src/places (10), before that of dst in FORWARD/a/b/race/dst/places (10): "
        "go to FORWARD/a/b/race/src\n"
        "  look up dst in FORWARD/a/b/race/dst (10)\n"
        "FORWARD/a/b/race/src\n"
        "  look up src in FORWARD/a/b/race/src (10)\n"
        "FORWARD/a/b\n"
        "  place of dst in FORWARD/a/b/race/dst/places (10): go to FORWARD/a/b/race/dst\n"
        "  place of src in FORWARD/a/b/race/src/places (10): go to FORWARD/a/b/race/src\n");
}

// Of all rules' elements.
std::size_t elementsThatDiffer(const Program& one, const Program& other)
{
    std::size_t differ = 0;
    EXPECT_EQ(one.maps.size(), other.maps.size());
    for (std::size_t i = 0; i < one.maps.size(); ++i) {
        EXPECT_EQ(one.maps[i].name, other.maps[i].name);
        for (const compiled::Element& element : one.maps[i].elements) {
            // The marks are the lines' numbers here.
            const auto same = [&](const compiled::Element& that) {
                return that.first == element.first && that.verdict == element.verdict && that.place == element.place;
            };
            differ += std::ranges::none_of(other.maps[i].elements, same) ? 1 : 0;
        }
    }
    return differ;
}

TEST(Race, OneMoreRuleIsItsOwnElements)
{
    Texts lines = inTurns(100);
    const std::optional<Program> before = compiled::compile(tableOf(lines));
    ASSERT_TRUE(before);
    for (const int at : {0, 37, 100}) {
        Texts more = lines;
        more.insert(more.begin() + at, "-A UserForwardRules -i a -o b -s 02:00:00:00:00:99 -j DROP");
        const std::optional<Program> after = compiled::compile(tableOf(more), &*before);
        ASSERT_TRUE(after);
        EXPECT_EQ(elementsThatDiffer(*after, *before), 2U) << at;
        EXPECT_EQ(elementsThatDiffer(*before, *after), 0U) << at;
    }
}

TEST(Race, ARuleWithoutAKeyStaysWhereItIs)
{
    Texts lines = inTurns(40);
    lines.insert(lines.begin() + 20, "-A UserForwardRules -i a -o b -s ! 02:00:00:00:00:15 -j DROP");
    const std::optional<Program> program = compiled::compile(tableOf(lines));
    ASSERT_TRUE(program);
    const compiled::Chain* chain = program->find("FORWARD/a/b");
    ASSERT_NE(chain, nullptr);
    ASSERT_EQ(chain->steps.size(), 5U);
    EXPECT_TRUE(std::holds_alternative<compiled::PlainRule>(chain->steps[2].action));
    EXPECT_NE(program->find("FORWARD/a/b/race-2/dst"), nullptr);
}

// With many rules there is a race for each length of the IPv4 header, as it says where the ports are; with few, or with
// a rule that returns, frames of other lengths meet the rules as they are.
TEST(Race, FindsPortsBehindHeadersOfAllLengths)
{
    for (const auto& [rules, returns, name] :
         {std::tuple(200, false, "FORWARD/a/b/race/lengths"), std::tuple(40, false, "FORWARD/a/b/ip4-as-written"),
          std::tuple(200, true, "UserForwardRules/a/b/ip4-as-written")}) {
        Texts lines;
        for (int i = 0; i < rules; ++i)
            lines.push_back("-A UserForwardRules -i a -o b " +
                            (i % 2 == 0 ? "-s 02:00:00:00:00:" + std::to_string(10 + i % 90)
                                        : "-p 0x800 --ip-protocol 17 --ip-destination-port " + std::to_string(i % 90)) +
                            (i % 3 == 0 ? " -j DROP" : " -j ACCEPT"));
        if (returns)
            lines.push_back("-A UserForwardRules -i a -o b -s 02:00:00:00:00:09 -j RETURN");
        const ebtables::Table table = tableOf(lines);
        const std::optional<Program> program = compiled::compile(table);
        ASSERT_TRUE(program);
        EXPECT_NE(program->find(name), nullptr) << name;
        for (std::uint8_t words = 0; words < 16; ++words) {
            for (std::uint8_t port = 0; port < 90; ++port) {
                test::RawFrame frame{"a", "b", test::Bytes(12), {}, 0x0800, test::Bytes(70)};
                frame.addresses[6] = 2;
                frame.addresses[11] = static_cast<std::uint8_t>(port * 7 % 0x99);
                frame.data[0] = static_cast<std::uint8_t>(0x40U | words);
                frame.data[9] = 17;
                frame.data[words * 4U + 3] = port;
                const test::Outcome plain = test::walk(table, frame);
                const test::Outcome compiled = test::run(*program, frame);
                ASSERT_EQ(plain.accepted, compiled.accepted) << name << ' ' << int{words} << ' ' << int{port};
                ASSERT_EQ(plain.counted, compiled.counted) << name << ' ' << int{words} << ' ' << int{port};
            }
        }
    }
}

// ---- the whole

TEST(Compiled, ManyRulesAreFewSteps)
{
    Texts lines;
    for (int i = 0; i < 100; ++i)
        lines.push_back("-A UserForwardRules -i a -o b -p 0x800 --ip-source 10.0.0." + std::to_string(i) + " -j DROP");
    const std::optional<Program> program = compiled::compile(tableOf(lines));
    ASSERT_TRUE(program);
    EXPECT_EQ(describe(*program), "INPUT (policy ACCEPT)\n"
                                  "FORWARD (policy ACCEPT)\n"
                                  "  look up in.out in FORWARD/ports (1)\n"
                                  "FORWARD/a/b\n"
                                  "  type 0x0800, has network[19+1]: look up ip-src in FORWARD/a/b/ip4.ip-src (100)\n");
    EXPECT_EQ(mostSteps(*program, *program->find("FORWARD")), 2U);
}

TEST(Compiled, SomeoneElsesRuleIsNotCompiled)
{
    ebtables::Table table = tableOf({});
    table.find("FORWARD")->rules.push_back({"--limit 3/sec -j ACCEPT", std::nullopt, {}, 1});
    EXPECT_FALSE(compiled::compile(table));
    std::swap(table.find("FORWARD")->rules, table.find("OUTPUT")->rules);
    EXPECT_TRUE(compiled::compile(table)); // not looked at
}

// A rule about one port matches no frame that ends before the other: both are read, or none.
TEST(Compiled, AFrameThatEndsBetweenThePortsHasNone)
{
    for (const bool ip6 : {false, true}) {
        Texts lines;
        for (int i = 0; i < 9; ++i)
            lines.push_back("-A UserInputRules -i a -p " + std::string(ip6 ? "0x86dd --ip6" : "0x800 --ip") +
                            "-protocol 17 --ip" + (ip6 ? "6" : "") + "-source-port " + std::to_string(i) + " -j DROP");
        const ebtables::Table table = tableOf(lines);
        const std::optional<Program> program = compiled::compile(table);
        ASSERT_TRUE(program);
        ASSERT_FALSE(program->maps.empty());
        const std::size_t header = ip6 ? 40 : 20;
        test::RawFrame frame{"a", "", test::Bytes(12), {}, static_cast<std::uint16_t>(ip6 ? 0x86dd : 0x0800), {}};
        frame.data.assign(header + 4, 0);
        frame.data[0] = ip6 ? 0x60 : 0x45;
        frame.data[ip6 ? 6 : 9] = 17;
        EXPECT_FALSE(test::run(*program, frame).accepted);
        frame.data.pop_back();
        EXPECT_TRUE(test::walk(table, frame).accepted);
        EXPECT_TRUE(test::run(*program, frame).accepted);
    }
}

// The same fate, the same counters and the same log lines. MOATKEEPER_FRAMES in the environment says how many frames.
TEST(Compiled, EveryFrameHasTheSameFate)
{
    const char* wanted = std::getenv("MOATKEEPER_FRAMES");
    const unsigned long frames = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : test::rounds(20'000);
    constexpr unsigned long framesEach = 200;
    std::size_t counted = 0;
    std::size_t logged = 0;
    std::size_t dropped = 0;
    std::size_t elements = 0;
    std::size_t places = 0;
    for (unsigned seed = 0; seed < frames / framesEach; ++seed) {
        std::mt19937 engine(seed);
        test::RandomRules random([&](std::size_t below) { return engine() % below; });
        const ebtables::Table table = random.table(1 + engine() % (seed % 4 == 3 ? 1000 : 120), seed % 2 == 0);
        const std::optional<Program> program = compiled::compile(table);
        ASSERT_TRUE(program);
        for (const compiled::Map& map : program->maps) {
            (map.places ? places : elements) += map.counts || map.places ? map.elements.size() : 0;
            // As the kernel gives it back.
            for (const compiled::Element& element : map.elements)
                ASSERT_EQ(element.last.size(), map.intervals ? element.first.size() : 0) << map.name;
        }
        for (unsigned long i = 0; i < framesEach; ++i) {
            const test::RawFrame frame = random.frame(table);
            const test::Outcome plain = test::walk(table, frame);
            const test::Outcome compiled = test::run(*program, frame);
            ASSERT_EQ(plain.accepted, compiled.accepted) << "seed " << seed << ", frame " << i;
            ASSERT_EQ(plain.counted, compiled.counted) << "seed " << seed << ", frame " << i;
            ASSERT_EQ(plain.logs, compiled.logs) << "seed " << seed << ", frame " << i;
            counted += plain.counted.size();
            logged += plain.logs.size();
            dropped += plain.accepted ? 0 : 1;
        }
    }
    // Rules are met, and they are in maps: otherwise nothing would have been shown.
    std::cout << frames << " frames: " << dropped << " dropped, " << counted << " rules met, " << logged << " lines; "
              << elements << " elements, " << places << " places\n";
    EXPECT_GT(counted, frames / 2);
    EXPECT_GT(logged, frames / 20);
    EXPECT_GT(dropped, frames / 10);
    EXPECT_GT(elements, frames / 10);
    EXPECT_GT(places, frames / 20);
}

} // namespace
