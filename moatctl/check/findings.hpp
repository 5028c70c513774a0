// The parts of checkConfiguration, and what they share.
#pragma once

#include "moatctl/bridge/expected.hpp"
#include "moatctl/check/check.hpp"

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace moatctl
{

// Collects problems.
class Findings
{
public:
    explicit Findings(const Configuration& configuration) : m_configuration(configuration) {}

    // column: empty when the whole row is meant. A second error about the same place says nothing new and is left out.
    void error(const Row& row, std::string_view column, std::string text);
    void warning(const Row& row, std::string_view column, std::string text);
    // About a table as a whole. Said once.
    void add(Severity severity, TableId table, std::string text);

    bool hasError(const Row& row) const { return m_wrongRows.contains(&row); }
    const Configuration& configuration() const { return m_configuration; }
    std::vector<Problem> take();

private:
    const Configuration& m_configuration;
    std::vector<Problem> m_problems;
    std::set<const Row*> m_wrongRows;
    std::set<std::pair<const Row*, std::string>> m_wrongPlaces;
};

// The row in words: "MoatKeeperRuleset Id 5".
std::string nameOf(const Row& row);

// What the daemon logs about rows that it cannot use.
void findUnusable(const Expected& expected, Findings& findings);
// Values that are no single word, switches that are neither 0 nor 1, fields that are not looked at, unknown ports.
void findOddValues(const Expected& expected, const CheckOptions& options, Findings& findings);
// Lines that the tool would refuse.
void findRefused(const Expected& expected, const Applied& applied, Findings& findings);
// Values that the daemon and the tool did not come to: they stop at the first that is wrong, and do not look at rows
// that are not in force.
void findFurtherValues(const Expected& expected, Findings& findings);
// Rules that no frame reaches.
void findUnreached(const BridgeModel& model, Findings& findings);
// Protocols that ports cannot do without and that would be dropped.
void findCutOff(const Expected& expected, const BridgeModel& model, Findings& findings);

} // namespace moatctl
