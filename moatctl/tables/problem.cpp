#include "moatctl/tables/problem.hpp"

#include <ostream>

namespace moatctl
{

Problem problemAt(Severity severity, const Configuration& configuration, const Row& row, std::string_view column,
                  std::string text)
{
    Problem problem;
    problem.severity = severity;
    problem.file = configuration.file;
    problem.line = column.empty() ? row.line : row.lineOf(row.table->at(column));
    problem.table = row.table->name;
    problem.id = row.id();
    problem.column = column;
    problem.text = std::move(text);
    return problem;
}

std::string toText(const Problem& problem)
{
    std::string text = problem.file;
    if (problem.line != 0)
        text += ':' + std::to_string(problem.line);
    if (!text.empty())
        text += ": ";
    return text + nameOf(problem.severity) + ": " + placeAndText(problem);
}

const char* nameOf(Severity severity)
{
    return severity == Severity::Error ? "error" : severity == Severity::Warning ? "warning" : "acknowledged";
}

bool isAcknowledged(const Configuration& configuration, const Problem& problem)
{
    const schema::Table* table = schema::findTable(problem.table);
    return problem.severity == Severity::Warning && table != nullptr &&
           configuration.acknowledged.contains({table->id, problem.id, warningOf(problem)});
}

std::string warningOf(const Problem& problem)
{
    return (problem.column.empty() ? "" : problem.column + ": ") + problem.text;
}

std::string placeAndText(const Problem& problem)
{
    std::string where = problem.table;
    if (problem.id != 0)
        where += " Id " + std::to_string(problem.id);
    if (!problem.column.empty())
        where += (where.empty() ? "" : ", ") + problem.column;
    return (where.empty() ? "" : where + ": ") + problem.text;
}

std::size_t writeProblems(std::ostream& out, const std::vector<Problem>& problems)
{
    std::size_t errors = 0;
    std::string lines; // standard error has no buffer
    for (const Problem& problem : problems) {
        lines += toText(problem) + '\n';
        errors += problem.severity == Severity::Error ? 1 : 0;
    }
    out << lines;
    return errors;
}

std::string inQuotes(const tessera::Value& value)
{
    return value.isText() ? inQuotes(value.getText()) : std::to_string(value.getInteger());
}

} // namespace moatctl
