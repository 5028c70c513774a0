#include "moatctl/check/check.hpp"

#include "moatctl/check/findings.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <utility>

namespace moatctl
{

void Findings::error(const Row& row, std::string_view column, std::string text)
{
    m_wrongRows.insert(&row);
    if (m_wrongPlaces.emplace(&row, column).second)
        m_problems.push_back(problemAt(Severity::Error, m_configuration, row, column, std::move(text)));
}

void Findings::warning(const Row& row, std::string_view column, std::string text)
{
    m_problems.push_back(problemAt(Severity::Warning, m_configuration, row, column, std::move(text)));
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

std::string nameOf(const Row& row)
{
    std::string name(row.table->name);
    return row.table->hasIds() ? name + " Id " + std::to_string(row.id()) : name;
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
    Findings findings(configuration);
    findUnusable(expected, findings);
    findOddValues(expected, options, findings);
    step();
    findRefused(expected, applied, findings);
    step();
    findFurtherValues(expected, findings);
    step();
    findUnreached(applied.model, findings);
    step();
    findCutOff(expected, applied.model, findings);
    step();
    return findings.take();
}

bool isInterfaceHere(const std::string& name)
{
    std::error_code ignored;
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != ".." &&
           std::filesystem::exists("/sys/class/net/" + name, ignored);
}

} // namespace moatctl
