#include "handler/first_commit.hpp"

#include "handler/fixed_lines.hpp"

#include <gtest/gtest.h>

#include <algorithm>

using namespace zol::moatkeeper;

namespace
{

// The lines behind the ones that make the user chains.
std::vector<QueuedLine> linesAfterInit(const Tables& tables)
{
    std::vector<QueuedLine> lines = firstCommit(tables).lines;
    const auto isInit = [](const QueuedLine& line, const char* text) { return line.text == text && !line.origin; };
    EXPECT_TRUE(lines.size() >= initLines.size() &&
                std::equal(initLines.begin(), initLines.end(), lines.begin(),
                           [&](const char* text, const QueuedLine& line) { return isInit(line, text); }));
    lines.erase(lines.begin(), lines.begin() + std::min<std::ptrdiff_t>(initLines.size(), std::ssize(lines)));
    return lines;
}

QueuedLine fixed(std::string text)
{
    return {std::move(text), std::nullopt};
}

QueuedLine of(Table table, std::size_t index, std::string text)
{
    return {std::move(text), RowPlace{table, index}};
}

} // namespace

TEST(FirstCommit, WithoutRowsMakesTheChainsAndSetsEmptyPolicies)
{
    EXPECT_EQ(linesAfterInit({}), (std::vector{fixed("ebtables -P INPUT "), fixed("ebtables -P FORWARD ")}));
    EXPECT_TRUE(firstCommit({}).records.empty());
    EXPECT_TRUE(firstCommit({}).unusable.empty());
}

TEST(FirstCommit, EveryGroupInItsOrderWithTheRowOfEachLine)
{
    Tables tables;
    tables.global = {{"DROP", "ACCEPT"}, {"ignored", "ignored"}};
    tables.inputPolicies = {{.id = 1, .interface = "a", .policy = "DROP"}};
    tables.forwardingPolicies = {{.id = 1, .inInterface = "a", .outInterface = "b", .policy = "ACCEPT"}};
    tables.rules = {{.id = 1, .rulePrio = 20, .inInterface = "a", .target = "DROP"},
                    {.id = 2, .rulePrio = -5, .inInterface = "b", .target = "DROP"},
                    {.id = 3, .rulePrio = 20, .inInterface = "c", .target = "DROP"}};
    tables.filters = {
        {.id = 1, .prio = 5, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac", .mode = "blacklist"},
        {.id = 2, .prio = 9, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac", .mode = "whitelist"}};
    tables.filterRules = {{.id = 1, .filterId = 2, .filterMatch = "m"}};
    const auto jumps = [](const std::string& chain) {
        return "ebtables -I FORWARD 1 -i b -o a -j " + chain + ";ebtables -I FORWARD 1 -o b -i a -j " + chain + ";";
    };
    EXPECT_EQ(linesAfterInit(tables),
              (std::vector{of(Table::Filters, 1, "ebtables -N 9bamacwhitelist; ebtables -P 9bamacwhitelist DROP"),
                           of(Table::Filters, 1, jumps("9bamacwhitelist")),
                           of(Table::Filters, 0, "ebtables -N 5bamacblacklist; ebtables -P 5bamacblacklist RETURN"),
                           of(Table::Filters, 0, jumps("5bamacblacklist")),
                           of(Table::FilterRules, 0, "ebtables -A 9bamacwhitelist -s m -j RETURN"),
                           fixed("ebtables -F UserInputRules"), fixed("ebtables -F UserForwardRules"),
                           of(Table::Rules, 1, "ebtables -A UserInputRules -i b -j DROP"),
                           of(Table::Rules, 0, "ebtables -A UserInputRules -i a -j DROP"),
                           of(Table::Rules, 2, "ebtables -A UserInputRules -i c -j DROP"),
                           of(Table::Global, 0, "ebtables -P INPUT DROP"),
                           of(Table::Global, 0, "ebtables -P FORWARD ACCEPT"), fixed("ebtables -F UserInputPolicy"),
                           of(Table::InputPolicies, 0, "ebtables -A UserInputPolicy -i a -j DROP"),
                           fixed("ebtables -F UserForwardPolicy"),
                           of(Table::ForwardingPolicies, 0, "ebtables -A UserForwardPolicy -i a -o b -j ACCEPT")}));
    using enum Table;
    EXPECT_EQ(firstCommit(tables).records, (std::vector<RowPlace>{{Filters, 1},
                                                                  {Filters, 0},
                                                                  {FilterRules, 0},
                                                                  {Rules, 1},
                                                                  {Rules, 0},
                                                                  {Rules, 2},
                                                                  {InputPolicies, 0},
                                                                  {ForwardingPolicies, 0}}));
}

TEST(FirstCommit, EveryReasonWhyARowHasNoLines)
{
    Tables tables;
    tables.rules = {{.enabled = 0, .rulePrio = 0},
                    {.rulePrio = 0},
                    {.rulePrio = 0, .inInterface = "a"},
                    {.inInterface = "a", .vlanId = 4095, .target = "x"},
                    {.inInterface = "a", .ethertype = "ARP", .ipProto = "ICMP", .target = "DROP"}};
    tables.inputPolicies = {{.enabled = 2, .policy = "x"}, {.interface = "a", .policy = "x"}};
    tables.forwardingPolicies = {{.enabled = 0}, {.policy = ""}};
    tables.filters = {{.enabled = 0},
                      {.prio = 0, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac"},
                      {.prio = 0, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac", .mode = "x"},
                      {.id = 3, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac", .mode = "x"},
                      {.id = 4, .inInterface = "a", .outInterface = "b", .matchCriteria = "vlan", .mode = "blacklist"},
                      {.id = 5, .inInterface = "a", .outInterface = "b", .matchCriteria = "x", .mode = "blacklist"}};
    tables.filterRules = {{.enabled = 0, .filterId = 99},         {.filterId = 99},
                          {.filterId = 3, .filterMatch = "m"},    {.filterId = 4},
                          {.filterId = 4, .filterMatch = "4096"}, {.filterId = 5, .filterMatch = "m"}};
    using enum Table;
    using enum Unusable;
    EXPECT_EQ(firstCommit(tables).unusable, (std::vector<UnusableRow>{{{Rules, 0}, Disabled},
                                                                      {{Rules, 1}, NoInInterface},
                                                                      {{Rules, 2}, PriorityZero},
                                                                      {{Rules, 3}, InvalidVlanId},
                                                                      {{Rules, 3}, InvalidTarget},
                                                                      {{Rules, 4}, UnknownProtocol},
                                                                      {{InputPolicies, 0}, Disabled},
                                                                      {{InputPolicies, 1}, UnknownPolicy},
                                                                      {{ForwardingPolicies, 0}, Disabled},
                                                                      {{ForwardingPolicies, 1}, UnknownPolicy},
                                                                      {{Filters, 0}, Disabled},
                                                                      {{Filters, 1}, Incomplete},
                                                                      {{Filters, 2}, PriorityZero},
                                                                      {{Filters, 3}, InvalidMode},
                                                                      {{FilterRules, 0}, Disabled},
                                                                      {{FilterRules, 1}, InvalidReference},
                                                                      {{FilterRules, 2}, InvalidReference},
                                                                      {{FilterRules, 3}, NoMatch},
                                                                      {{FilterRules, 4}, InvalidVlanMatch},
                                                                      {{FilterRules, 5}, InvalidMatchType}}));
    // A record without lines queues empty ones.
    const std::vector<QueuedLine> lines = linesAfterInit(tables);
    EXPECT_TRUE(std::ranges::count(lines, of(Filters, 3, "")) == 2 && std::ranges::count(lines, of(Rules, 3, "")) == 1);
}

TEST(FirstCommit, ARuleBelongsToTheFirstFilterOfItsIdInTheirOrder)
{
    Tables tables;
    tables.filters = {
        {.id = 7, .prio = 1, .inInterface = "a", .outInterface = "b", .matchCriteria = "mac", .mode = "blacklist"},
        {.id = 7, .prio = 2, .inInterface = "a", .outInterface = "b", .matchCriteria = "IPv4", .mode = "whitelist"}};
    tables.filterRules = {{.id = 1, .filterId = 7, .filterMatch = "10.0.0.1"}};
    const std::vector<QueuedLine> lines = linesAfterInit(tables);
    EXPECT_EQ(std::ranges::count(lines, of(Table::FilterRules, 0,
                                           "ebtables -A 2baIPv4whitelist -p 0x800 --ip-source 10.0.0.1 -j RETURN")),
              1);
}
