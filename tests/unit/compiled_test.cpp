#include "compiled/compile.hpp"
#include "compiled/describe.hpp"
#include "compiled/dispatch.hpp"
#include "compiled/flatten.hpp"
#include "compiled/key.hpp"
#include "compiled/order.hpp"
#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"
#include "tests/compiled/outcome.hpp"
#include "tests/compiled/random_rules.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
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

std::vector<Item> itemsOf(const std::vector<std::string>& rules)
{
    std::vector<Item> items;
    for (const std::string& rule : rules)
        items.push_back({ebtables::parseLine("ebtables -A FORWARD " + rule).commands.at(0).rule, ebtables::noOrigin});
    return items;
}

std::vector<std::string> textOf(const std::vector<Item>& items)
{
    std::vector<std::string> texts;
    for (const Item& item : items)
        texts.push_back(ebtables::toText(item.rule));
    return texts;
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
    EXPECT_TRUE(compiled::flatten(table, *table.find("OUTPUT")).empty());
}

TEST(Flatten, EndsWithChainsThatLeadToThemselves)
{
    const ebtables::Table table = tableOf({"-N f", "-P f RETURN", "-A f -j f", "-A FORWARD -j f"});
    EXPECT_EQ(textOf(compiled::flatten(table, *table.find("FORWARD"))), Texts{"-j f"});
    EXPECT_TRUE(compiled::compile(table));
}

TEST(Dispatch, SortsByPorts)
{
    const compiled::Dispatched sorted =
        compiled::dispatch(itemsOf({"-i a -o b -s 02:00:00:00:00:01 -j DROP", "-o b -s 02:00:00:00:00:02 -j DROP",
                                    "-i a -d 02:00:00:00:00:03 -j ACCEPT", "-i c -o b -j DROP"}));
    ASSERT_EQ(sorted.classes.size(), 3U);
    EXPECT_EQ(sorted.classes[0].out, "b");
    EXPECT_EQ(textOf(sorted.classes[0].items), (Texts{"-s 02:00:00:00:00:01 -j DROP", "-s 02:00:00:00:00:02 -j DROP",
                                                      "-d 02:00:00:00:00:03 -j ACCEPT"}));
    EXPECT_EQ(sorted.classes[1].in, "c");
    EXPECT_EQ(textOf(sorted.classes[1].items), (Texts{"-s 02:00:00:00:00:02 -j DROP", "-j DROP"}));
    EXPECT_EQ(sorted.classes[2].in, "a");
    EXPECT_EQ(sorted.classes[2].out, "");
    EXPECT_EQ(textOf(sorted.classes[2].items), Texts{"-d 02:00:00:00:00:03 -j ACCEPT"});
    EXPECT_EQ(textOf(sorted.rest), Texts{"-o b -s 02:00:00:00:00:02 -j DROP"});
}

// A hundred rules for every port, and as many ports: a class for each would have ten thousand.
TEST(Dispatch, DoesNotMultiplyRules)
{
    Texts rules;
    for (int i = 0; i < 100; ++i) {
        rules.push_back("-i + -s 02:00:00:00:00:" + std::to_string(10 + i % 80) + " -j DROP");
        rules.push_back("-i p" + std::to_string(i) + " -j DROP");
    }
    const compiled::Dispatched sorted = compiled::dispatch(itemsOf(rules));
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
    const std::vector<Item> items = itemsOf(rules);
    std::vector<std::optional<compiled::RuleKey>> keys;
    for (const Item& item : items)
        keys.push_back(compiled::keyOf(item.rule));
    std::string text;
    for (const compiled::Group& group : compiled::order(items, keys)) {
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
    const unsigned long frames = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 20'000;
    constexpr unsigned long framesEach = 200;
    std::size_t counted = 0;
    std::size_t logged = 0;
    std::size_t dropped = 0;
    std::size_t elements = 0;
    for (unsigned seed = 0; seed < frames / framesEach; ++seed) {
        std::mt19937 engine(seed);
        test::RandomRules random([&](std::size_t below) { return engine() % below; });
        const ebtables::Table table = random.table(1 + engine() % 120, seed % 2 == 0);
        const std::optional<Program> program = compiled::compile(table);
        ASSERT_TRUE(program);
        for (const compiled::Map& map : program->maps)
            elements += map.counts ? map.elements.size() : 0;
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
              << elements << " elements\n";
    EXPECT_GT(counted, frames / 2);
    EXPECT_GT(logged, frames / 20);
    EXPECT_GT(dropped, frames / 10);
    EXPECT_GT(elements, frames / 10);
}

} // namespace
