// Something wrong with a configuration, and where.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "text/one_line.hpp"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

enum class Severity { Acknowledged, Warning, Error };

struct Problem {
    Severity severity = Severity::Error;
    std::string file;       // "" when the configuration is the server's
    std::uint32_t line = 0; // from 1; 0 when there is none
    std::string table;      // the table's name on the server; "" when no table is concerned
    std::int32_t id = 0;    // of the row; 0 when no row is concerned
    std::string column;     // "" when no column is concerned
    std::string text;       // the value and what was expected, one line
    bool operator==(const Problem&) const = default;
};

// About a row, and a column of it unless that is empty; the place is taken from the row.
Problem problemAt(Severity severity, const Configuration& configuration, const Row& row, std::string_view column,
                  std::string text);

// `rules.json:12: error: MoatKeeperRuleset Id 5, SrcMAC: "xy": expected a MAC address ...`
std::string toText(const Problem& problem);

// Likewise, without file, line and severity.
std::string placeAndText(const Problem& problem);

// Of a row's warning, what is acknowledged.
std::string warningOf(const Problem& problem);
// Whether it is a warning that was acknowledged.
bool isAcknowledged(const Configuration& configuration, const Problem& problem);

// "error", "warning" or "acknowledged".
const char* nameOf(Severity severity);

// One line each. Returns the number of errors among them.
std::size_t writeProblems(std::ostream& out, const std::vector<Problem>& problems);

// The value for a message; quoted when it is a text.
using text::inQuotes;
std::string inQuotes(const tessera::Value& value);

} // namespace moatctl
