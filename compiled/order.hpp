// Fourth step: rules of like shape together, in an order that no frame tells from the one that they had.
#pragma once

#include "compiled/known.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace compiled
{

// Rules whose keys have the same parts, and nothing in common with each other: they can be one map. Or else rules
// without keys, in their order.
struct Group {
    std::string name;               // of the shape, and the level if it is not the first; empty: rules without keys
    std::vector<std::size_t> items; // in the list, ascending
};

// The groups are to be tried one after the other. Rules change places only if no frame matches both, for the first one
// that matches counts the frame. A rule that an equal one stands before is never reached, and is in no group.
//
//   1  -s A -j DROP            src:       1, 3
//   2  -d B -j ACCEPT    ->    dst:       2
//   3  -s C -j DROP            src 2nd:   4    (before 2 it would take frames from D to B, and 2 is before it)
//   4  ...
//
// Shapes with more bits come first. A rule that comes after one of a later shape, and may match the same frame, is of
// the next level: behind all shapes of the level before. Time: rules times forms.
//
// rules: with their keys.
std::vector<Group> order(KnownRules rules);

} // namespace compiled
