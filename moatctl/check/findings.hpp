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
    void add(const Row& row, Problem problem);
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

// Rows that the daemon makes nothing of, and lines that the tool would refuse, without an error of the row yet.
void findUnusable(const Expected& expected, Findings& findings);
void findRefused(const Expected& expected, const Applied& applied, Findings& findings);
// Ports that this machine does not have.
void findMissingInterfaces(const Expected& expected, const CheckOptions& options, Findings& findings);
// Rules that no frame reaches.
void findUnreached(const Applied& applied, Findings& findings);
// Protocols that ports cannot do without and that would be dropped.
void findCutOff(const Expected& expected, const Applied& applied, Findings& findings);

} // namespace moatctl
