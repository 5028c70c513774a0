#include "moatctl/check/check.hpp"

#include "moatctl/check/findings.hpp"
#include "moatctl/check/row.hpp"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace moatctl
{

void Findings::add(const Row& row, Problem problem)
{
    if (problem.severity == Severity::Error) {
        m_wrongRows.insert(&row);
        if (!m_wrongPlaces.emplace(&row, problem.column).second)
            return;
    }
    m_problems.push_back(std::move(problem));
}

void Findings::error(const Row& row, std::string_view column, std::string text)
{
    add(row, problemAt(Severity::Error, m_configuration, row, column, std::move(text)));
}

void Findings::warning(const Row& row, std::string_view column, std::string text)
{
    add(row, problemAt(Severity::Warning, m_configuration, row, column, std::move(text)));
}

void Findings::add(Severity severity, TableId table, std::string text)
{
    Problem problem;
    problem.severity = severity;
    problem.file = m_configuration.file;
    problem.table = schema::table(table).name;
    problem.text = std::move(text);
    if (std::ranges::find(m_problems, problem) == m_problems.end())
        m_problems.push_back(std::move(problem));
}

std::vector<Problem> Findings::take()
{
    const auto place = [](const Problem& problem) {
        const schema::Table* table = findTable(problem.table);
        const std::size_t column = problem.column.empty() ? 0 : table->at(problem.column) + 1;
        return std::tuple(table->id, problem.id, column);
    };
    std::ranges::stable_sort(m_problems, {}, place);
    return std::move(m_problems);
}

namespace
{

void checkRows(const Configuration& configuration, Findings& findings)
{
    for (const schema::Table& table : schema::allTables()) {
        for (const Row& row : configuration.rows(table.id)) {
            for (Problem& problem : checkRow(configuration, row))
                findings.add(row, std::move(problem));
        }
    }
}

bool isEnabled(const Configuration& configuration, const Problem& problem)
{
    const Row* row = configuration.find(findTable(problem.table)->id, problem.id);
    if (row == nullptr || !row->table->hasIds())
        return true;
    if (row->integer("Enabled") == 0)
        return false;
    const Row* filter = row->table->id == TableId::FilterRules
                            ? configuration.find(TableId::Filters, row->integer("BridgeFilterID"))
                            : nullptr;
    return filter == nullptr || filter->integer("Enabled") != 0;
}

std::vector<Problem> findAll(const Configuration& configuration, const Expected& expected, const Applied& applied,
                             const CheckOptions& options, const std::function<void()>& step)
{
    Findings findings(configuration);
    checkRows(configuration, findings);
    step();
    findUnusable(expected, findings);
    findRefused(expected, applied, findings);
    step();
    findMissingInterfaces(expected, options, findings);
    step();
    findUnreached(applied, findings);
    step();
    findCutOff(expected, applied, findings);
    step();
    return findings.take();
}

} // namespace

std::vector<Problem> checkInForce(const Configuration& configuration, const Expected& expected, const Applied& applied,
                                  const CheckOptions& options)
{
    Findings findings(configuration);
    checkRows(configuration, findings);
    findUnusable(expected, findings);
    findRefused(expected, applied, findings);
    Findings ports(configuration);
    findMissingInterfaces(expected, options, ports);
    std::vector<Problem> problems = findings.take();
    std::erase_if(problems, [&configuration](const Problem& problem) {
        return problem.severity != Severity::Error || !isEnabled(configuration, problem);
    });
    std::ranges::move(ports.take(), std::back_inserter(problems));
    return problems;
}

std::vector<Problem> checkConfiguration(const Configuration& configuration, const CheckOptions& options)
{
    std::size_t done = 0;
    const auto step = [&] {
        constexpr std::size_t steps = 7;
        if (options.onProgress)
            options.onProgress(++done, steps);
    };
    const Expected expected = expectedOf(configuration);
    step();
    const Applied applied = apply(expected);
    step();
    return findAll(configuration, expected, applied, options, step);
}

std::vector<Problem> checkConfiguration(const Configuration& configuration, const Expected& expected,
                                        const Applied& applied, const CheckOptions& options)
{
    return findAll(configuration, expected, applied, options, [] {});
}

} // namespace moatctl
