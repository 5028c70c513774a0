#include "moatctl/check/findings.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace moatctl
{

namespace
{

using ebtables::CommandKind;

// Which column an option's value comes from. First match counts.
struct Source {
    TableId table;
    std::string_view option; // or the word that the parser complains of
    std::string_view column;
};
constexpr std::array sources{
    Source{TableId::InputPolicies, "-i", "Interface"},
    Source{TableId::InputPolicies, "-j", "Policy"},
    Source{TableId::ForwardingPolicies, "-i", "InInterface"},
    Source{TableId::ForwardingPolicies, "-o", "OutInterface"},
    Source{TableId::ForwardingPolicies, "-j", "Policy"},
    Source{TableId::Rules, "-i", "InInterface"},
    Source{TableId::Rules, "-o", "OutInterface"},
    Source{TableId::Rules, "-d", "DstMAC"},
    Source{TableId::Rules, "-s", "SrcMAC"},
    Source{TableId::Rules, "--vlan-id", "VLANID"},
    Source{TableId::Rules, "--vlan-encap", "Ethertype"},
    Source{TableId::Rules, "-p", "Ethertype"},
    Source{TableId::Rules, "--ip-source", "IPSrcAddr"},
    Source{TableId::Rules, "--ip6-source", "IPSrcAddr"},
    Source{TableId::Rules, "--ip-destination", "IPDstAddr"},
    Source{TableId::Rules, "--ip6-destination", "IPDstAddr"},
    Source{TableId::Rules, "--ip-protocol", "IPProto"},
    Source{TableId::Rules, "--ip6-protocol", "IPProto"},
    Source{TableId::Rules, "--ip-destination-port", "IPPort"},
    Source{TableId::Rules, "--ip6-destination-port", "IPPort"},
    Source{TableId::Rules, "--ip-...-port", "IPPort"},
    Source{TableId::Rules, "--ip6-...-port", "IPPort"},
    Source{TableId::Rules, "-j", "Target"},
    Source{TableId::FilterRules, "-s", "FilterMatch"},
    Source{TableId::FilterRules, "--vlan-id", "FilterMatch"},
    Source{TableId::FilterRules, "--ip-source", "FilterMatch"},
    Source{TableId::FilterRules, "--ip6-source", "FilterMatch"},
};

std::string_view columnOf(const Row& row, const ebtables::LineError& error)
{
    // Either of a filter's ports may stand behind either option.
    if (row.table->id == TableId::Filters && (error.option == "-i" || error.option == "-o"))
        return row.text("InInterface") == error.word ? "InInterface" : "OutInterface";
    const auto found = std::ranges::find_if(sources, [&](const Source& source) {
        return source.table == row.table->id && (source.option == error.option || source.option == error.word);
    });
    return found != sources.end() ? found->column : "";
}

// The name behind -N in a filter's first line.
std::string chainIn(const std::string& line)
{
    constexpr std::string_view before = "ebtables -N ";
    return line.starts_with(before) ? line.substr(before.size(), line.find(';') - before.size()) : "";
}

void refusedGlobal(const RefusedLine& refused, Findings& findings)
{
    if (refused.origin == nullptr)
        return findings.add(Severity::Error, TableId::Global,
                            "there is no row: expected one with GlobalInputPolicy and GlobalForwardingPolicy, each "
                            "ACCEPT or DROP");
    const char* column = refused.line.starts_with("ebtables -P INPUT") ? "GlobalInputPolicy" : "GlobalForwardingPolicy";
    findings.error(*refused.origin, column, inQuotes(refused.origin->value(column)) + ": expected ACCEPT or DROP");
}

void malformed(const RefusedLine& refused, Findings& findings)
{
    const Row& row = *refused.origin;
    const ebtables::LineError& error = *refused.error;
    const std::string_view column = columnOf(row, error);
    if (column == "IPPort" && error.option.empty())
        return findings.error(row, column,
                              inQuotes(row.value(column)) + ": a port needs an IPProto; expected TCP or UDP there");
    if (!column.empty())
        return findings.error(row, column, inQuotes(row.value(column)) + ": expected " + error.expected);
    if (row.table->id == TableId::Filters) {
        const std::string chain = chainIn(refused.line);
        if (findings.hasError(row))
            return;
        // The name stands behind -N, -P and -j. What -j asks for is known better here.
        const std::string expected =
            error.option == "-j" ? "a chain name of at most " + std::to_string(ebtables::maxJumpTarget) + " characters"
                                 : error.expected;
        return findings.error(row, "",
                              "its chain would be called " + inQuotes(chain.empty() ? error.word : chain) +
                                  ", from Prio, ports, MatchCriteria and Mode: expected " + expected);
    }
    if (!findings.hasError(row))
        findings.error(row, "", error.text());
}

void refusedByKernel(const RefusedLine& refused, const Expected& expected, Findings& findings)
{
    const Row& row = *refused.origin;
    if (row.table->id == TableId::Filters && refused.command->kind == CommandKind::NewChain) {
        const std::string start = "ebtables -N " + refused.command->chain + ";";
        const auto first = std::ranges::find_if(expected.lines,
                                                [&](const ExpectedLine& line) { return line.text.starts_with(start); });
        // Of the two, the one that stands in the file is to be changed.
        const bool isFirst = row.line == 0 && first->origin->line != 0;
        return findings.error(isFirst ? *first->origin : row, "",
                              "its chain " + inQuotes(refused.command->chain) + " is that of " +
                                  nameOf(isFirst ? row : *first->origin) + " already: expected another Prio");
    }
    if (row.table->id == TableId::FilterRules)
        return findings.error(row, "BridgeFilterID",
                              inQuotes(row.value("BridgeFilterID")) + ": the filter's chain is not made (see there)");
    if (!findings.hasError(row))
        findings.error(row, "", refused.reason);
}

} // namespace

void findRefused(const Expected& expected, const Applied& applied, Findings& findings)
{
    for (const RefusedLine& refused : applied.refused) {
        if (refused.origin == nullptr || refused.origin->table->id == TableId::Global)
            refusedGlobal(refused, findings);
        else if (refused.error)
            malformed(refused, findings);
        else
            refusedByKernel(refused, expected, findings);
    }
}

} // namespace moatctl
