#include "moatctl/check/rows_not_in_force.hpp"

#include "moatctl/check/findings.hpp"
#include "moatctl/check/row.hpp"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace moatctl
{

namespace
{

constexpr std::size_t longestLine = 1'500; // as the device gives it

// Whether it is meant to be in force: it is enabled, and so is its filter if it has one.
bool isEnabled(const Configuration& configuration, const Row& row)
{
    if (row.table->hasIds() && row.integer("Enabled") == 0)
        return false;
    if (row.table->id != TableId::FilterRules)
        return true;
    const Row* filter = configuration.find(TableId::Filters, row.integer("BridgeFilterID"));
    return filter == nullptr || filter->integer("Enabled") != 0;
}

Problem withText(Problem problem, std::string text)
{
    problem.text = std::move(text);
    return problem;
}

// Without a row of global policies the daemon makes lines of empty ones. Other lines without a row are its own.
Problem withoutRow(const DeviceLine& line)
{
    Problem problem = withText(Problem(), line.reason);
    if (line.line.starts_with("ebtables -P INPUT ") || line.line.starts_with("ebtables -P FORWARD "))
        problem.table = schema::table(TableId::Global).name;
    return problem;
}

// Rows without a line of theirs.
std::vector<Problem> unusableRows(const Configuration& configuration, const Expected& expected)
{
    Findings findings(configuration);
    const auto ownErrors = [&](const Row& row) {
        for (Problem& problem : checkRow(configuration, row)) {
            if (problem.severity == Severity::Error && !findings.hasError(row))
                findings.add(row, std::move(problem));
        }
    };
    Expected meant; // to be in force
    for (const Row* row : expected.leftOut) {
        if (isEnabled(configuration, *row))
            ownErrors(*row);
    }
    std::ranges::copy_if(expected.unusable, std::back_inserter(meant.unusable),
                         [&](const UnusableRow& unusable) { return isEnabled(configuration, *unusable.row); });
    for (const UnusableRow& unusable : meant.unusable)
        ownErrors(*unusable.row);
    findUnusable(meant, findings);
    std::vector<Problem> problems = findings.take();
    std::erase_if(problems, [](const Problem& problem) { return problem.severity != Severity::Error; });
    return problems;
}

// The rows that give each line. Equal rows give equal lines; of two filters with one chain only the second is refused.
class Origins
{
public:
    explicit Origins(const Expected& expected) : m_expected(expected)
    {
        for (const ExpectedLine& line : expected.lines) {
            if (line.origin != nullptr && !line.text.empty())
                m_rows[text::oneLine(line.text, longestLine)].push_back(line.origin);
        }
    }

    std::vector<const Row*> of(const std::string& line) const
    {
        const auto found = m_rows.find(line);
        if (found == m_rows.end())
            return {};
        if (found->second.size() == 1)
            return found->second;
        std::vector<const Row*> likely;
        for (const RefusedLine& refused : apply(m_expected).refused) {
            if (refused.origin != nullptr && text::oneLine(refused.line, longestLine) == line)
                likely.push_back(refused.origin);
        }
        return likely.empty() ? found->second : likely;
    }

private:
    const Expected& m_expected;
    std::map<std::string, std::vector<const Row*>, std::less<>> m_rows;
};

} // namespace

std::vector<RowNotInForce> rowsNotInForce(const Configuration& configuration, const std::vector<DeviceLine>& lines)
{
    return rowsNotInForce(configuration, expectedOf(configuration), lines);
}

std::vector<RowNotInForce> rowsNotInForce(const Configuration& configuration, const Expected& expected,
                                          const std::vector<DeviceLine>& lines)
{
    std::vector<RowNotInForce> found;
    for (Problem& problem : unusableRows(configuration, expected))
        found.push_back({std::move(problem), ""});
    if (lines.empty())
        return found;
    const Origins origins(expected);
    for (const DeviceLine& each : lines) {
        const std::vector<const Row*> rows = origins.of(each.line);
        for (const Row* row : rows)
            found.push_back({problemAt(Severity::Error, configuration, *row, "", each.reason), each.line});
        if (rows.empty())
            found.push_back({withoutRow(each), each.line});
    }
    std::ranges::stable_sort(found, {}, [](const RowNotInForce& each) {
        const schema::Table* table = findTable(each.problem.table);
        return std::tuple(table != nullptr ? static_cast<int>(table->id) : -1, each.problem.id);
    });
    return found;
}

std::vector<RowNotInForce> ofChange(std::vector<RowNotInForce> rows, const Stored& stored,
                                    const std::string& deviceName)
{
    const auto key = [](const RowNotInForce& row) { return std::pair(row.problem.table, row.problem.id); };
    const auto isOfChange = [&stored](const RowNotInForce& row) {
        const schema::Table* table = findTable(row.problem.table);
        return table != nullptr && stored.rows.contains({table->id, row.problem.id});
    };
    if (std::ranges::all_of(rows, isOfChange))
        return rows;
    const auto device = std::ranges::find(stored.devicesBefore, deviceName, &Device::name);
    const bool known = device != stored.devicesBefore.end() && stored.numberBefore &&
                       device->hasReached(*stored.numberBefore) && device->lines().size() == device->notInForceCount;
    std::set<std::pair<std::string, std::int32_t>> before;
    if (known) {
        for (const RowNotInForce& row : rowsNotInForce(stored.before, device->lines()))
            before.insert(key(row));
    }
    std::erase_if(rows, [&](const RowNotInForce& row) {
        return !isOfChange(row) && (!known || row.problem.table.empty() || before.contains(key(row)));
    });
    return rows;
}

std::size_t countRows(const std::vector<RowNotInForce>& rows)
{
    std::set<std::pair<std::string, std::int32_t>> different;
    for (const RowNotInForce& row : rows)
        different.emplace(row.problem.table, row.problem.id);
    return different.size();
}

std::string toText(const RowNotInForce& row)
{
    if (row.line.empty())
        return placeAndText(row.problem);
    return placeAndText(withText(row.problem, row.line + ": " + row.problem.text));
}

} // namespace moatctl
