// What has to be done to one program so that it is another: as little as possible.
#pragma once

#include "compiled/program.hpp"

#include <cstddef>
#include <utility>
#include <vector>

namespace compiled
{

// Numbers are places in the lists of the one program (`from`: what is there) or of the other (`to`: what is wanted).
struct Difference {
    // Of a map that stays.
    struct Elements {
        std::size_t from = 0;
        std::size_t to = 0;
        std::vector<std::size_t> gone;  // places in from's map
        std::vector<std::size_t> added; // places in to's map
        bool operator==(const Elements&) const = default;
    };

    std::vector<std::size_t> goneChains;                       // from
    std::vector<std::size_t> newChains;                        // to
    std::vector<std::pair<std::size_t, std::size_t>> refilled; // from, to: chains that stay with other steps, or policy
    std::vector<std::size_t> goneMaps;                         // from
    std::vector<std::size_t> newMaps;                          // to
    std::vector<Elements> elements;

    bool operator==(const Difference&) const = default;
    bool empty() const { return *this == Difference(); }
};

// Chains and maps are the same by their names, and maps by the form of their keys as well. The order of chains, of maps
// and of elements does not matter, that of steps does.
Difference difference(const Program& from, const Program& to);

} // namespace compiled
