#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/split_line.hpp"
#include "moatctl/exit_status.hpp"
#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/kernel_order.hpp"
#include "moatctl/tables/place_rule.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/rename_port.hpp"
#include "moatctl/tables/values.hpp"
#include "ovsdb/json.hpp"
#include "tests/unit/rounds.hpp"
#include "tests/unit/rule_row.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace moatctl
{

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int32_t largest = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t smallest = std::numeric_limits<std::int32_t>::min();

Configuration withRules(const std::vector<std::pair<std::int32_t, std::int32_t>>& idsAndPriorities)
{
    Configuration configuration;
    for (const auto& [id, priority] : idsAndPriorities)
        EXPECT_TRUE(configuration.add(rule(id, priority)));
    return configuration;
}

std::vector<std::int32_t> idsInOrder(const Configuration& configuration, TableId table = TableId::Rules)
{
    std::vector<std::int32_t> ids;
    for (const Row* row : inKernelOrder(configuration, table))
        ids.push_back(row->id());
    return ids;
}

TEST(Tables, AreFoundByNameAndWord)
{
    ASSERT_THAT(schema::allTables(), SizeIs(schema::tableCount));
    for (std::size_t t = 0; t < schema::tableCount; ++t) {
        const schema::Table& table = schema::allTables()[t];
        EXPECT_EQ(static_cast<std::size_t>(table.id), t);
        EXPECT_EQ(findTable(table.word), &table);
        EXPECT_EQ(findTable(table.name), &table);
    }
    EXPECT_EQ(findTable("RULE"), &schema::table(TableId::Rules));
    EXPECT_EQ(findTable("rules"), nullptr);
}

TEST(Configuration, KeepsRowsByIdAndIdsUnique)
{
    Configuration configuration = withRules({{3, 1}, {1, 1}, {2, 1}});
    EXPECT_FALSE(configuration.add(rule(2, 9)));
    EXPECT_EQ(configuration.rows(TableId::Rules)[1].integer("RulePrio"), 1);
    EXPECT_THAT(idsInOrder(configuration), ElementsAre(1, 2, 3));
    EXPECT_TRUE(configuration.remove(TableId::Rules, 2));
    EXPECT_FALSE(configuration.remove(TableId::Rules, 2));
    EXPECT_EQ(configuration.find(TableId::Rules, 2), nullptr);
}

TEST(Configuration, NextIdIsLargerThanAnyThatWasUsed)
{
    EXPECT_EQ(Configuration().nextId(TableId::Rules), 1);
    Configuration configuration = withRules({{1, 1}, {7, 1}});
    EXPECT_EQ(configuration.nextId(TableId::Rules), 8);
    configuration.remove(TableId::Rules, 7);
    EXPECT_EQ(configuration.nextId(TableId::Rules), 8);
    configuration.clear(TableId::Rules);
    EXPECT_EQ(configuration.nextId(TableId::Rules), 8);
    EXPECT_EQ(configuration.nextId(TableId::Filters), 1);
    configuration.rememberId(TableId::Rules, 20);
    configuration.rememberId(TableId::Rules, 9);
    EXPECT_EQ(configuration.nextId(TableId::Rules), 21);
    EXPECT_EQ(withRules({{largest - 1, 1}}).nextId(TableId::Rules), largest);
    EXPECT_EQ(withRules({{2, 1}, {largest, 1}}).nextId(TableId::Rules), 0);
}

TEST(RenamePort, InAllTablesAndNothingElse)
{
    Configuration before;
    const auto add = [&before](TableId table, std::int32_t id,
                               std::initializer_list<std::pair<const char*, const char*>> texts) {
        Row row(schema::table(table));
        row.set("Id", id);
        for (const auto& [column, text] : texts)
            row.set(column, std::string(text));
        before.add(row);
    };
    add(TableId::InputPolicies, 1, {{"Interface", "guest"}});
    add(TableId::ForwardingPolicies, 1, {{"InInterface", "office"}, {"OutInterface", "guest"}});
    add(TableId::Rules, 1, {{"InInterface", "! guest"}, {"OutInterface", "guest"}});
    add(TableId::Rules, 2, {{"InInterface", "guest2"}, {"OutInterface", "gue+"}});
    add(TableId::Filters, 1, {{"InInterface", "guest"}, {"OutInterface", "lan+"}});
    add(TableId::FilterRules, 1, {{"FilterMatch", "guest"}});
    Editor editor(before);
    EXPECT_EQ(renamePort(editor, "guest", "lan3"), 4U);
    EXPECT_THAT(editor.told().reports,
                ElementsAre("~ MoatKeeperInputPolicy Id 1: Interface \"guest\" -> \"lan3\"",
                            "~ MoatKeeperForwardingPolicy Id 1: OutInterface \"guest\" -> \"lan3\"",
                            "~ MoatKeeperRuleset Id 1: InInterface \"! guest\" -> \"! lan3\", OutInterface \"guest\" "
                            "-> \"lan3\"",
                            "~ MoatKeeperBridgeFilters Id 1: InInterface \"guest\" -> \"lan3\""));
    EXPECT_THAT(
        editor.told().notes,
        ElementsAre("note: MoatKeeperRuleset Id 2, OutInterface: \"gue+\" stays; it matches \"guest\", but not "
                    "\"lan3\"",
                    "note: MoatKeeperBridgeFilters Id 1, OutInterface: \"lan+\" stays; it matches \"lan3\", but "
                    "not \"guest\""));
    EXPECT_THAT(difference(before, editor.configuration), SizeIs(4));
    EXPECT_EQ(renamePort(editor, "guest", "lan3"), 0U);
}

TEST(KernelOrder, RulesByPriorityThenId)
{
    EXPECT_THAT(idsInOrder(withRules({{1, 30}, {2, 10}, {3, -5}, {4, 10}})), ElementsAre(3, 2, 4, 1));
}

TEST(KernelOrder, LaterFilterOfEqualPriorityStandsFirst)
{
    Configuration configuration;
    for (const auto& [id, priority] : std::vector<std::pair<int, int>>{{1, 5}, {2, 20}, {3, 5}}) {
        Row filter(schema::table(TableId::Filters));
        filter.set("Id", id);
        filter.set("Prio", priority);
        configuration.add(filter);
        Row entry(schema::table(TableId::FilterRules));
        entry.set("Id", 4 - id);
        entry.set("BridgeFilterID", id);
        configuration.add(entry);
    }
    Row stray(schema::table(TableId::FilterRules));
    stray.set("Id", 9);
    stray.set("BridgeFilterID", 77);
    configuration.add(stray);
    EXPECT_THAT(idsInOrder(configuration, TableId::Filters), ElementsAre(3, 1, 2));
    EXPECT_THAT(idsInOrder(configuration, TableId::FilterRules), ElementsAre(1, 3, 2, 9));
}

// Whatever the priorities: the rule stands directly beside its anchor, the others keep their order.
TEST(PlaceRule, RandomPlaces)
{
    std::mt19937 random(1);
    int placed = 0;
    for (int round = 0; round < test::rounds(2000); ++round) {
        Configuration configuration;
        const int count = std::uniform_int_distribution(1, 8)(random);
        for (int id = 1; id <= count; ++id)
            configuration.add(rule(id, std::uniform_int_distribution(-3, 4)(random)));
        const int anchor = std::uniform_int_distribution(1, count)(random);
        const bool before = std::uniform_int_distribution(0, 1)(random) == 1;
        const int moved = std::uniform_int_distribution(1, count + 1)(random); // count + 1 is a new rule
        if (moved == anchor)
            continue;
        std::vector<std::int32_t> expected = idsInOrder(configuration);
        std::erase(expected, moved);
        expected.insert(std::ranges::find(expected, anchor) + (before ? 0 : 1), moved);

        Editor editor(configuration);
        Row row = moved > count ? rule(moved, 0) : *configuration.find(TableId::Rules, moved);
        placeBeside(editor, row, anchor, before);
        editor.configuration.remove(TableId::Rules, moved);
        editor.configuration.add(row);
        ASSERT_EQ(idsInOrder(editor.configuration), expected) << "round " << round;
        ASSERT_NE(row.integer("RulePrio"), 0);
        for (const Change& change : difference(configuration, editor.configuration)) {
            if (change.before != nullptr && change.after != nullptr) {
                ASSERT_NE(change.after->integer("RulePrio"), 0);
            }
        }
        ++placed;
    }
    EXPECT_GT(placed, test::rounds(1000));
}

TEST(PlaceRule, EndsOfTheNumbers)
{
    Editor atEnd(withRules({{1, largest}}));
    Row row = rule(2, 1);
    EXPECT_THROW(placeBeside(atEnd, row, 1, false), Failure);
    placeBeside(atEnd, row, 1, true);
    EXPECT_LT(row.integer("RulePrio"), largest);

    Editor atBegin(withRules({{1, smallest}}));
    row = rule(2, 1);
    placeBeside(atBegin, row, 1, true);
    atBegin.configuration.add(row);
    EXPECT_THAT(idsInOrder(atBegin.configuration), ElementsAre(2, 1));
    EXPECT_THROW(placeBeside(atBegin, row, 9, true), Failure);
    EXPECT_THROW(placeBeside(atBegin, row, 2, true), Failure);
}

TEST(Difference, AddedRemovedChanged)
{
    const Configuration before = withRules({{1, 10}, {2, 20}, {3, 30}});
    Configuration after = withRules({{2, 25}, {3, 30}, {4, 40}});
    after.find(TableId::Rules, 2)->set("InInterface", "a\"b\n");
    std::vector<std::string> lines;
    for (const Change& change : difference(before, after))
        lines.push_back(toText(change));
    EXPECT_THAT(lines, ElementsAre("- MoatKeeperRuleset Id 1: RulePrio 10, InInterface \"eth0\", Target \"DROP\"",
                                   "~ MoatKeeperRuleset Id 2: RulePrio 20 -> 25, InInterface \"eth0\" -> \"a\"b\\x0a\"",
                                   "+ MoatKeeperRuleset Id 4: RulePrio 40, InInterface \"eth0\", Target \"DROP\""));
    EXPECT_THAT(difference(before, before), IsEmpty());
}

TEST(Batch, WordsOfALine)
{
    EXPECT_THAT(splitLine("").words, IsEmpty());
    EXPECT_THAT(splitLine("  # only a comment").words, IsEmpty());
    EXPECT_THAT(splitLine("rule add\t--in eth0#1 # comment\r").words, ElementsAre("rule", "add", "--in", "eth0#1"));
    EXPECT_THAT(splitLine(R"(a 'b c' "d \"e\" \\" f"g h"i '' "# no")").words,
                ElementsAre("a", "b c", "d \"e\" \\", "fg hi", "", "# no"));
    EXPECT_THAT(splitLine("'a\\'").words, ElementsAre("a\\"));
    EXPECT_THAT(splitLine("a \"b").error, HasSubstr("quotation mark"));
    EXPECT_THAT(splitLine("it's").error, HasSubstr("quotation mark"));
}

TEST(Output, CsvFields)
{
    EXPECT_EQ(csvField("eth0"), "eth0");
    EXPECT_EQ(csvField(""), "");
    EXPECT_EQ(csvField("a,b"), "\"a,b\"");
    EXPECT_EQ(csvField("say \"no\""), "\"say \"\"no\"\"\"");
    EXPECT_EQ(csvField("a\nb"), "\"a\nb\"");
}

TEST(Output, SheetsInThreeForms)
{
    const auto text = [](const char* words) { return tessera::Value(std::string(words)); };
    const std::vector<Sheet> sheets{
        {"one", "First", {"A", "B"}, {{tessera::Value(1), text("\xc3\xa4\x1b")}, {tessera::Value(22), text("")}}},
        {"two", "Second", {"C"}, {}}};
    const std::vector<Sheet> numbers{{"n", "", {"A", "B"}, {{std::uint64_t{18446744073709551615U}, Cell()}}}};
    const auto written = [&sheets](Format format, bool headings) {
        std::ostringstream out;
        writeSheets(out, sheets, {format, !headings}, {});
        return out.str();
    };
    EXPECT_EQ(written(Format::Table, true), "First\nA   B\n1   \\xc3\\xa4\\x1b\n22  \n\nSecond\nC\n");
    EXPECT_EQ(written(Format::Table, false), "1   \\xc3\\xa4\\x1b\n22  \n");
    EXPECT_EQ(written(Format::Csv, true), "Table,A,B\r\none,1,\xc3\xa4\x1b\r\none,22,\r\n\r\nTable,C\r\n");
    EXPECT_EQ(ovsdb::toText(ovsdb::parseJson(written(Format::Json, true))),
              ovsdb::toText(ovsdb::parseJson(
                  "{\"one\":[{\"A\":1,\"B\":\"\xc3\xa4\\u001b\"},{\"A\":22,\"B\":\"\"}],\"two\":[]}")));
    std::ostringstream json;
    writeSheets(json, numbers, {Format::Json, false}, {});
    EXPECT_NE(json.str().find("{\"A\": 18446744073709551615, \"B\": null}"), std::string::npos) << json.str();
    std::ostringstream csv;
    writeSheets(csv, numbers, {Format::Csv, true}, {});
    EXPECT_EQ(csv.str(), "18446744073709551615,\r\n");
}

TEST(Output, ATableKeepsToTheWidthOfTheTerminal)
{
    const auto text = [](const char* words) { return tessera::Value(std::string(words)); };
    const std::vector<Sheet> sheets{{"one",
                                     "",
                                     {"CHAIN", "TEXT"},
                                     {{text("FORWARD"), text("-i eth0 -o eth1 -s 02:00:00:00:00:01 -j DROP")},
                                      {text("INPUT"), text("a-word-that-is-longer-than-the-column")}}}};
    const auto written = [&sheets](std::size_t width, bool colour = false) {
        std::ostringstream out;
        writeSheets(out, sheets, {}, {.colour = colour, .width = width});
        return out.str();
    };
    const std::string whole = "CHAIN    TEXT\n"
                              "FORWARD  -i eth0 -o eth1 -s 02:00:00:00:00:01 -j DROP\n"
                              "INPUT    a-word-that-is-longer-than-the-column\n";
    EXPECT_EQ(written(0), whole);
    EXPECT_EQ(written(53), whole);
    EXPECT_EQ(written(35), "CHAIN    TEXT\n"
                           "FORWARD  -i eth0 -o eth1 -s\n"
                           "         02:00:00:00:00:01 -j DROP\n"
                           "INPUT    a-word-that-is-longer-than\n"
                           "         -the-column\n");
    EXPECT_EQ(written(28), "CHAIN  FORWARD\n"
                           "TEXT   -i eth0 -o eth1 -s 02:00:00:00:00:01 -j DROP\n"
                           "\n"
                           "CHAIN  INPUT\n"
                           "TEXT   a-word-that-is-longer-than-the-column\n");
    EXPECT_EQ(written(0, true).substr(0, 22), "\033[1mCHAIN    TEXT\n\033[0m");
}

TEST(ParseConfiguration, TakesMoreValuesThanAnyConfigurationHas)
{
    std::string text = "{\"X\":[0";
    for (int values = 0; values < 2'000'000; ++values) // those of 100,000 rules with all columns, and more
        text += ",0";
    const LoadedFile loaded = parseConfiguration(text + "]}", "f");
    ASSERT_EQ(loaded.problems.size(), 1U);
    EXPECT_EQ(loaded.problems.front().text, "there is no table \"X\"");
}

// What readText says of a file; "" when it reads it.
std::string complaint(const std::string& path, const ReadLimits& limits)
{
    std::istringstream standardInput("0123456789");
    try {
        readText(standardInput, path, limits);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), ExitStatus::BadInput);
        return failure.what();
    }
    return "";
}

TEST(ReadText, AFileUpToTheLimitIsRead)
{
    const ScratchFolder folder;
    folder.write("file", "0123456789");
    std::istringstream standardInput("0123456789");
    EXPECT_EQ(readText(standardInput, folder.path("file"), {.bytes = 10}), "0123456789");
    EXPECT_EQ(readText(standardInput, "-", {.bytes = 10}), "0123456789");
    EXPECT_THAT(complaint(folder.path("file"), {.bytes = 9}),
                HasSubstr(": cannot be read: 10 bytes; expected at most 9"));
    EXPECT_EQ(complaint("-", {.bytes = 9}), "standard input: cannot be read: more than 9 bytes; expected at most 9");
}

TEST(ReadText, WhatHasNoEndIsRefused)
{
    EXPECT_EQ(complaint("/dev/zero", {.bytes = 1000}),
              "/dev/zero: cannot be read: more than 1000 bytes; expected at most 1000");
    EXPECT_THAT(complaint("/", {}), HasSubstr("Is a directory"));
    EXPECT_THAT(complaint("/no/such", {}), HasSubstr("No such file"));
}

TEST(ReadText, APipeIsReadAndNotWaitedForWithoutEnd)
{
    const ScratchFolder folder;
    const std::string pipe = folder.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(complaint(pipe, {.silence = std::chrono::milliseconds(50)}),
              pipe + ": cannot be read: nothing came for 50 ms")
        << "nobody has the other end";
    std::thread writer([&pipe] { std::ofstream(pipe) << "words"; });
    std::istringstream standardInput;
    EXPECT_EQ(readText(standardInput, pipe), "words");
    writer.join();
}

TEST(Values, FromPersonToTable)
{
    const schema::Table& rules = schema::table(TableId::Rules);
    const auto stored = [&rules](const char* column, const char* text) {
        return toText(fromPerson(rules.columns[rules.at(column)], text, "--option"));
    };
    EXPECT_EQ(stored("Ethertype", "ipv4"), "IPv4");
    EXPECT_EQ(stored("Ethertype", "0x0800"), "IPv4");
    EXPECT_EQ(stored("Ethertype", "0x86dd"), "IPv6");
    EXPECT_EQ(stored("Ethertype", "0x88cc"), "0x88cc");
    EXPECT_EQ(stored("IPProto", "udp"), "UDP");
    EXPECT_EQ(stored("IPProto", "6"), "TCP");
    EXPECT_EQ(stored("Target", "accept"), "ACCEPT");
    EXPECT_EQ(stored("VLANID", "none"), "-1");
    EXPECT_EQ(stored("VLANID", "0"), "0");
    EXPECT_EQ(stored("IPPort", "none"), "0");
    EXPECT_EQ(stored("RulePrio", "-2147483648"), "-2147483648");
    for (const auto& [column, text] : std::vector<std::pair<const char*, const char*>>{{"RulePrio", "0"},
                                                                                       {"RulePrio", "2147483648"},
                                                                                       {"RulePrio", "1 "},
                                                                                       {"RulePrio", ""},
                                                                                       {"OutInterface", ""},
                                                                                       {"VLANID", ""},
                                                                                       {"InInterface", ""},
                                                                                       {"InInterface", "a b"},
                                                                                       {"InInterface", "eth0;"},
                                                                                       {"VLANID", "4095"},
                                                                                       {"VLANID", "-2"},
                                                                                       {"IPPort", "65536"},
                                                                                       {"IPPort", "http"},
                                                                                       {"IPProto", "icmp"},
                                                                                       {"SrcMAC", "00:11:22"},
                                                                                       {"IPSrcAddr", "10.0.0.0/33"},
                                                                                       {"Target", "RETURN"},
                                                                                       {"Ethertype", "IP v4"}})
        EXPECT_THROW(stored(column, text), Failure) << column << ' ' << text;
}

TEST(Load, RowsThatAreThereTwice)
{
    const LoadedFile file = parseConfiguration("{\"MoatKeeper\": [\n{}, {}],\n\"MoatKeeperRuleset\": [\n{\"Id\": 3},\n"
                                               "{\"Id\": 3},\n{\"Id\": \"x\"},\n{\"Id\": \"x\"}]}",
                                               "f");
    std::vector<std::string> twice;
    for (const Problem& problem : file.problems) {
        if (problem.text.find("already") != std::string::npos || problem.text.find("second") != std::string::npos)
            twice.push_back(std::to_string(problem.line) + ": " + problem.text);
    }
    EXPECT_THAT(twice, ElementsAre("2: a second row: the table has one row at most", "5: already used in line 4"));
}

TEST(Load, LinesOfErrorsAndDefaults)
{
    const LoadedFile good = parseConfiguration("// c\n{\"MoatKeeperRuleset\": [ /* x */\n{\"Id\": 2, \"RulePrio\": 1,\n"
                                               "\"InInterface\": \"eth0\", \"Target\": \"DROP\"}]}",
                                               "f");
    ASSERT_THAT(good.problems, IsEmpty());
    const Row* row = good.configuration.find(TableId::Rules, 2);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->line, 3U);
    EXPECT_EQ(row->lineOf(row->table->at("Target")), 4U);
    EXPECT_EQ(row->lineOf(row->table->at("SrcMAC")), 3U);
    EXPECT_EQ(row->integer("VLANID"), -1);
    EXPECT_EQ(row->integer("Enabled"), 1);

    const LoadedFile bad =
        parseConfiguration("{\"MoatKeeperInputPolicy\": [\n{\"Id\": 1, \"Interface\": 5},\n7]}", "f");
    std::vector<std::string> texts;
    for (const Problem& problem : bad.problems)
        texts.push_back(toText(problem));
    EXPECT_THAT(texts,
                ElementsAre("f:2: error: MoatKeeperInputPolicy Id 1, Interface: expected a text, found an integer",
                            "f:2: error: MoatKeeperInputPolicy Id 1, Policy: missing: expected ACCEPT or DROP",
                            "f:3: error: MoatKeeperInputPolicy: expected a row, an object, found an integer"));
    EXPECT_THAT(parseConfiguration("{", "f").problems, SizeIs(1));
}

} // namespace

} // namespace moatctl
