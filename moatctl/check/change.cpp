#include "moatctl/check/change.hpp"

#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

namespace moatctl
{

namespace
{

// What there is to say of the configuration before the change; found out when it is asked for.
class Before
{
public:
    Before(const Configuration& configuration, const CheckOptions& options)
        : m_configuration(configuration), m_options(options)
    {
    }

    // Whether the row was the same; of a problem that is about no row, whether there was none either.
    bool hadRow(const Row* row, const Problem& problem) const
    {
        const Row* held = m_configuration.find(findTable(problem.table)->id, problem.id);
        return row == nullptr || held == nullptr ? row == held : *row == *held;
    }

    // An error is the same whatever it says, a warning if it says the same.
    bool hadProblem(const Problem& problem)
    {
        return known().contains(keyOf(problem, problem.severity == Severity::Error ? "" : problem.text));
    }

    // Whether the same was said.
    bool said(const Problem& problem) { return known().contains(keyOf(problem, problem.text)); }

private:
    using Key = std::tuple<Severity, std::string, std::int32_t, std::string, std::string>;

    static Key keyOf(const Problem& problem, const std::string& text)
    {
        return {problem.severity, problem.table, problem.id, problem.column, text};
    }

    const std::set<Key>& known()
    {
        if (!m_known) {
            m_known.emplace();
            for (const Problem& problem : checkConfiguration(m_configuration, m_options)) {
                m_known->insert(keyOf(problem, problem.text));
                if (problem.severity == Severity::Error)
                    m_known->insert(keyOf(problem, ""));
            }
        }
        return *m_known;
    }

    const Configuration& m_configuration;
    const CheckOptions& m_options;
    std::optional<std::set<Key>> m_known;
};

// A warning that depends on the row and the machine only: the same row has always had it. Asking for all that was wrong
// before takes as long as the check itself.
bool isAboutPort(const Problem& problem)
{
    const schema::Table& table = *findTable(problem.table);
    return problem.severity == Severity::Warning && !problem.column.empty() &&
           table.columns[table.at(problem.column)].kind == ValueKind::Interface;
}

} // namespace

std::vector<Problem> checkChange(const Configuration& before, const Configuration& after, const CheckOptions& options)
{
    Before old(before, options);
    std::vector<Problem> problems;
    for (Problem& problem : checkConfiguration(after, options)) {
        const Row* row = after.find(findTable(problem.table)->id, problem.id);
        const bool fromFile = row != nullptr && row->line != 0;
        if (!fromFile)
            problem.file.clear();
        if (old.hadRow(row, problem) && (isAboutPort(problem) || old.hadProblem(problem))) {
            if (!fromFile || problem.severity == Severity::Warning)
                continue;
            problem.severity = Severity::Warning;
        } else if (row != nullptr && !fromFile && old.said(problem)) {
            if (problem.severity == Severity::Warning)
                continue;
            problem.severity = Severity::Warning;
        }
        if (row == nullptr)
            problem.severity = Severity::Warning;
        if (isAcknowledged(after, problem))
            continue;
        problems.push_back(std::move(problem));
    }
    return problems;
}

} // namespace moatctl
