#include "moatctl/bridge/expected.hpp"

#include "ebtables/model.hpp"
#include "handler/first_commit.hpp"
#include "handler/row_values.hpp"

#include <utility>

namespace moatctl
{

namespace
{

namespace daemon = zol::moatkeeper;

// The rows of a table as the daemon sees them.
template <typename Make>
auto rowsOf(const Configuration& configuration, TableId table, const Make& make)
{
    std::vector<decltype(make(std::declval<const Row&>()))> rows;
    rows.reserve(configuration.rows(table).size());
    for (const Row& row : configuration.rows(table))
        rows.push_back(make(row));
    return rows;
}

daemon::Tables tablesOf(const Configuration& configuration)
{
    return {.global = rowsOf(configuration, TableId::Global, daemon::globalRow<Row>),
            .inputPolicies = rowsOf(configuration, TableId::InputPolicies, daemon::inputPolicyRow<Row>),
            .forwardingPolicies = rowsOf(configuration, TableId::ForwardingPolicies, daemon::forwardingPolicyRow<Row>),
            .rules = rowsOf(configuration, TableId::Rules, daemon::ruleRow<Row>),
            .filters = rowsOf(configuration, TableId::Filters, daemon::filterRow<Row>),
            .filterRules = rowsOf(configuration, TableId::FilterRules, daemon::filterRuleRow<Row>)};
}

TableId idOf(daemon::Table table)
{
    switch (table) {
    case daemon::Table::Global:
        return TableId::Global;
    case daemon::Table::InputPolicies:
        return TableId::InputPolicies;
    case daemon::Table::ForwardingPolicies:
        return TableId::ForwardingPolicies;
    case daemon::Table::Rules:
        return TableId::Rules;
    case daemon::Table::Filters:
        return TableId::Filters;
    case daemon::Table::FilterRules:
        break;
    }
    return TableId::FilterRules;
}

} // namespace

Expected expectedOf(const Configuration& configuration)
{
    const auto rowAt = [&](const daemon::RowPlace& place) {
        return &configuration.rows(idOf(place.table))[place.index];
    };
    daemon::FirstCommit commit = daemon::firstCommit(tablesOf(configuration));
    Expected expected;
    for (daemon::QueuedLine& line : commit.lines)
        expected.lines.push_back({std::move(line.text), line.origin ? rowAt(*line.origin) : nullptr});
    for (const daemon::UnusableRow& unusable : commit.unusable) {
        if (unusable.reason != daemon::Unusable::Disabled)
            expected.unusable.push_back({rowAt(unusable.row), unusable.reason});
    }
    for (const daemon::RowPlace& place : commit.records)
        expected.used.push_back(rowAt(place));
    return expected;
}

Applied apply(const Expected& expected)
{
    Applied applied;
    ebtables::TableModel model;
    for (const ExpectedLine& line : expected.lines) {
        const ebtables::ParsedLine parsed = ebtables::parseLine(line.text);
        if (parsed.error) {
            applied.refused.push_back({line.origin, line.text, parsed.error, {}, {}});
            continue;
        }
        applied.rows.push_back(line.origin);
        const auto origin = static_cast<ebtables::Origin>(applied.rows.size());
        for (const ebtables::Command& command : parsed.commands) {
            if (std::optional<std::string> reason = model.apply(command, origin))
                applied.refused.push_back({line.origin, line.text, {}, std::move(*reason), command});
        }
    }
    applied.table = model.table();
    return applied;
}

} // namespace moatctl
