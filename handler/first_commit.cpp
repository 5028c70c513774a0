#include "handler/first_commit.hpp"

#include "handler/fixed_lines.hpp"
#include "handler/passed_over.hpp"
#include "handler/priority_order.hpp"
#include "records/row_lines.hpp"

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

template <typename Row>
struct Record {
    RowPlace place;
    const Row* row;
    std::conditional_t<std::is_same_v<Row, FilterRow>, FilterLines, RowLines> lines;
};

template <typename Row>
using Records = std::vector<Record<Row>>;

// Reads and applies as the handler does: the order of either is the handler's.
class Commit
{
public:
    explicit Commit(const Tables& tables) : m_tables(tables) {}

    FirstCommit run()
    {
        Records<RuleRow> rules = read(Table::Rules, m_tables.rules);
        std::ranges::stable_sort(rules, comesBeforeAsRule,
                                 [](const Record<RuleRow>& rule) { return rule.row->rulePrio; });
        const auto inputPolicies = read(Table::InputPolicies, m_tables.inputPolicies);
        const auto forwardingPolicies = read(Table::ForwardingPolicies, m_tables.forwardingPolicies);
        Records<FilterRow> filters = read(Table::Filters, m_tables.filters);
        std::ranges::stable_sort(filters, comesBeforeAsFilter,
                                 [](const Record<FilterRow>& filter) { return filter.row->prio; });
        const auto filterRules = readFilterRules(filters);

        queueFixed(initLines);
        for (const Record<FilterRow>& filter : filters)
            queueRecord(filter, {filter.lines.createChainCommand, filter.lines.insertJumpsCommand});
        queueAll(filterRules);
        // A group that is read without a record is as it was before: nothing to apply.
        if (!rules.empty())
            queueFixed(flushRulesLines);
        queueAll(rules);
        queueGlobalPolicies();
        if (!inputPolicies.empty())
            queueFixed(flushInputPoliciesLines);
        queueAll(inputPolicies);
        if (!forwardingPolicies.empty())
            queueFixed(flushForwardingPoliciesLines);
        queueAll(forwardingPolicies);
        return std::move(m_result);
    }

private:
    // The rows that become records.
    template <typename Row>
    Records<Row> read(Table table, const std::vector<Row>& rows)
    {
        Records<Row> records;
        for (std::size_t index = 0; index < rows.size(); ++index)
            add(records, {table, index}, rows[index], whyPassedOver(rows[index]), [&] { return linesOf(rows[index]); });
        return records;
    }

    Records<FilterRuleRow> readFilterRules(const Records<FilterRow>& filters)
    {
        Records<FilterRuleRow> records;
        for (std::size_t index = 0; index < m_tables.filterRules.size(); ++index) {
            const FilterRuleRow& row = m_tables.filterRules[index];
            const auto filter =
                std::ranges::find(filters, row.filterId, [](const Record<FilterRow>& each) { return each.row->id; });
            const bool filterIsValid = filter != filters.end() && filter->lines.reasons.empty();
            add(records, {Table::FilterRules, index}, row, whyPassedOver(row, filterIsValid), [&] {
                return linesOf(JoinedFilterRule{.mode = filter->row->mode,
                                                .chainName = filter->lines.chainName,
                                                .matchCriteria = filter->row->matchCriteria,
                                                .filterMatch = row.filterMatch});
            });
        }
        return records;
    }

    template <typename Row, typename MakeLines>
    void add(Records<Row>& records, RowPlace place, const Row& row, std::optional<Unusable> why,
             const MakeLines& makeLines)
    {
        if (why) {
            m_result.unusable.push_back({place, *why});
            return;
        }
        records.push_back({place, &row, makeLines()});
        for (const Unusable reason : records.back().lines.reasons)
            m_result.unusable.push_back({place, reason});
    }

    template <typename Lines>
    void queueFixed(const Lines& lines, std::optional<RowPlace> origin = std::nullopt)
    {
        for (const auto& line : lines)
            m_result.lines.push_back({std::string(line), origin});
    }

    template <typename Row>
    void queueRecord(const Record<Row>& record, const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines)
            m_result.lines.push_back({line, record.place});
        m_result.records.push_back(record.place);
    }

    template <typename Row>
    void queueAll(const Records<Row>& records)
    {
        for (const Record<Row>& record : records)
            queueRecord(record, {record.lines.addCommand});
    }

    void queueGlobalPolicies()
    {
        if (m_tables.global.empty())
            return queueFixed(globalPolicyLines("", ""));
        const GlobalRow& row = m_tables.global.front();
        queueFixed(globalPolicyLines(row.inputPolicy, row.forwardingPolicy), RowPlace{Table::Global, 0});
    }

    const Tables& m_tables;
    FirstCommit m_result;
};

} // namespace

FirstCommit firstCommit(const Tables& tables)
{
    return Commit(tables).run();
}

} // namespace zol::moatkeeper
