// Rows that look right by themselves and yet cannot be in force.
#include "moatctl/check/findings.hpp"

#include <algorithm>
#include <utility>

namespace moatctl
{

namespace
{

using ebtables::CommandKind;
using zol::moatkeeper::Unusable;

void badReference(const Row& row, Findings& findings)
{
    const std::int32_t id = row.integer("BridgeFilterID");
    const Row* filter = findings.configuration().find(TableId::Filters, id);
    if (filter != nullptr && filter->integer("Enabled") == 0)
        findings.warning(row, "BridgeFilterID",
                         std::to_string(id) + ": that filter is disabled, so the rule is not in force either");
    else
        findings.error(row, "BridgeFilterID",
                       std::to_string(id) +
                           ": that filter cannot be used (see there); expected a filter without errors");
}

// The name after -N in a filter's first line.
std::string chainIn(const std::string& line)
{
    constexpr std::string_view before = "ebtables -N ";
    return line.starts_with(before) ? line.substr(before.size(), line.find(';') - before.size()) : "";
}

void malformed(const RefusedLine& refused, Findings& findings)
{
    const Row& row = *refused.origin;
    const ebtables::LineError& error = *refused.error;
    if (row.table->id != TableId::Filters)
        return findings.error(row, "", error.text());
    // The name stands after -N, -P and -j. What -j asks for is known better here.
    const std::string chain = chainIn(refused.line);
    const std::string expected =
        error.option == "-j" ? "a chain name of at most " + std::to_string(ebtables::maxJumpTarget) + " characters"
                             : error.expected;
    findings.error(row, "",
                   "its chain would be called " + inQuotes(chain.empty() ? error.word : chain) +
                       ", from Prio, ports, MatchCriteria and Mode: expected " + expected);
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
        return badReference(row, findings);
    findings.error(row, "", refused.reason);
}

} // namespace

void findUnusable(const Expected& expected, Findings& findings)
{
    for (const auto& [row, reason] : expected.unusable) {
        // The filter's mode and criteria are told of at the filter.
        if (row->table->id == TableId::FilterRules &&
            (reason == Unusable::InvalidReference || reason == Unusable::InvalidMode ||
             reason == Unusable::InvalidMatchType))
            badReference(*row, findings);
        else if (!findings.hasError(*row))
            findings.error(*row, "", "the daemon makes no line of this row");
    }
}

void findRefused(const Expected& expected, const Applied& applied, Findings& findings)
{
    for (const RefusedLine& refused : applied.refused) {
        if (refused.origin == nullptr)
            findings.add(Severity::Error, TableId::Global,
                         "there is no row: expected one with GlobalInputPolicy and GlobalForwardingPolicy, each "
                         "ACCEPT or DROP");
        else if (findings.hasError(*refused.origin))
            continue; // that is why
        else if (refused.error)
            malformed(refused, findings);
        else
            refusedByKernel(refused, expected, findings);
    }
}

} // namespace moatctl
