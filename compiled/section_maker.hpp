// Makes the sections of a program.
#pragma once

#include "compiled/making.hpp"

#include <cstddef>
#include <string>

namespace compiled
{

struct PlaceOfSection {
    std::string chain; // that its steps are in
    Decided decided;   // about its frames' ports
};

// When rules of several forms are worth a race.
struct RaceLimits {
    std::size_t longest = 0;      // so many forms that a frame can meet all of, at most
    std::size_t rulesPerForm = 0; // at least: a race asks each form
};

// Makes the memory's section that of these rules, within the same limits as before. firstMap: the number of its first
// map.
void makeSection(const Surroundings& surroundings, SectionMemory& memory, const PlaceOfSection& of,
                 const RuleList& rules, std::size_t firstMap, RaceLimits limits, Forms& forms);

} // namespace compiled
