// Second step: which rules a frame can meet at all, by its ports.
#pragma once

#include "compiled/item.hpp"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace compiled
{

// The rules for frames by these ports, in their order.
struct PortClass {
    std::string in;
    std::string out;                // empty: any that no other class with the same `in` has
    std::vector<std::size_t> rules; // places in the list

    Decided decided() const { return {true, !out.empty()}; }
};

struct Dispatched {
    std::vector<PortClass> classes; // those with both ports first; in ascending order of names
    std::vector<std::size_t> rest;  // for all other frames
};

// A frame belongs to the class with both its ports, or else to that with the one it came in by, or else to the rest.
//
//   -i a -o b -s X -j DROP          a, b:  -s X -j DROP
//   -i + -o b -s Y -j DROP    ->           -s Y -j DROP
//   -i a -d Z -j ACCEPT                    -d Z -j ACCEPT
//                                   a:     -o b -s Y: none, the class above has b;  -d Z -j ACCEPT
//                                   rest:  -o b -s Y -j DROP
//
// A rule for several ports is in all of their classes. Where that would multiply the rules, and where there are only
// few, all of them are the rest as they are. Time: rules, and those that are given to classes.
Dispatched dispatch(std::span<const ebtables::Rule* const> rules);

} // namespace compiled
