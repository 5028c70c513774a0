// Makes the sections of a program.
#pragma once

#include "compiled/making.hpp"

#include <cstddef>
#include <string>

namespace compiled
{

struct ClassOfRules {
    std::string chain; // that its steps are in
    Decided decided;   // about its frames' ports
    KnownRules rules;
};

// Makes the memory's section that of these rules. firstMap: the number of its first map. longestRace: of how many forms
// that a frame can meet all of.
void makeSection(const Surroundings& surroundings, SectionMemory& memory, const ClassOfRules& of, std::size_t firstMap,
                 std::size_t longestRace, Forms& forms);

} // namespace compiled
