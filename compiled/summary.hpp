// What was made of the rules for which ports, in numbers.
#pragma once

#include "compiled/program.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace compiled
{

// The frames by these ports that pass the chain; a frame is in the first class that it fits.
struct ClassSummary {
    std::string chain; // as in the plain form
    std::string in;    // empty: any other
    std::string out;   // likewise
    std::size_t maps = 0;
    std::size_t elements = 0; // of those maps; rules that count, and what leads to them
    std::size_t rules = 0;    // as they stand
    std::size_t steps = 0;    // that a frame is compared with at most, from the chain's beginning

    bool operator==(const ClassSummary&) const = default;
};

// In the order of the program's chains, of each first the classes with both ports, then those with one, then the rest.
std::vector<ClassSummary> summaryOf(const Program& program);

} // namespace compiled
