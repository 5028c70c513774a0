#include "moatctl/bridge/expected.hpp"

#include "ebtables/model.hpp"
#include "handler/first_commit.hpp"
#include "handler/rows_from_values.hpp"
#include "schema/tables.hpp"

#include <array>
#include <utility>

namespace moatctl
{

namespace
{

namespace daemon = zol::moatkeeper;

// The rows that the daemon's data source delivers: without those with a text that would not be one operand of a line.
class DeliveredRows
{
public:
    explicit DeliveredRows(const Configuration& configuration)
    {
        for (const schema::Table& table : schema::allTables()) {
            for (const Row& row : configuration.rows(table.id)) {
                (isDelivered(row) ? m_rows[static_cast<std::size_t>(table.id)] : m_leftOut).push_back(&row);
            }
        }
    }

    const std::vector<const Row*>& of(TableId table) const { return m_rows[static_cast<std::size_t>(table)]; }

    const std::vector<const Row*>& leftOut() const { return m_leftOut; }

    // The rows of a table as the daemon sees them.
    template <typename Make>
    auto made(TableId table, const Make& make) const
    {
        std::vector<decltype(make(std::declval<const Row&>()))> rows;
        rows.reserve(of(table).size());
        for (const Row* row : of(table))
            rows.push_back(make(*row));
        return rows;
    }

private:
    static bool isDelivered(const Row& row)
    {
        for (std::size_t i = 0; i < row.values.size(); ++i) {
            if (schema::expectedOperand(row.table->columns[i].kind, row.values[i].getText()))
                return false;
        }
        return true;
    }

    std::array<std::vector<const Row*>, schema::tableCount> m_rows;
    std::vector<const Row*> m_leftOut;
};

daemon::Tables tablesOf(const DeliveredRows& rows)
{
    return {.global = rows.made(TableId::Global, daemon::globalRow<Row>),
            .inputPolicies = rows.made(TableId::InputPolicies, daemon::inputPolicyRow<Row>),
            .forwardingPolicies = rows.made(TableId::ForwardingPolicies, daemon::forwardingPolicyRow<Row>),
            .rules = rows.made(TableId::Rules, daemon::ruleRow<Row>),
            .filters = rows.made(TableId::Filters, daemon::filterRow<Row>),
            .filterRules = rows.made(TableId::FilterRules, daemon::filterRuleRow<Row>)};
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
    const DeliveredRows rows(configuration);
    const auto rowAt = [&](const daemon::RowPlace& place) { return rows.of(idOf(place.table))[place.index]; };
    daemon::FirstCommit commit = daemon::firstCommit(tablesOf(rows));
    Expected expected;
    expected.leftOut = rows.leftOut();
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
