// Sixth step: a group of rules of one shape as steps of a chain.
#pragma once

#include "compiled/item.hpp"
#include "compiled/key.hpp"
#include "compiled/program.hpp"

#include <functional>
#include <string>
#include <vector>

namespace compiled
{

// Both are the caller's.
struct KeyedItem {
    const Item* item;
    const RuleKey* key;
};

// What the steps need beside themselves, added to as they are made.
struct Surroundings {
    Program& program;
    // Where an element leads whose rule logs: a chain that logs and decides.
    std::function<std::string(const ebtables::Rule&)> loggingChain;
    // The map of this name in the program that is in force, or null.
    std::function<const Map*(const std::string&)> mapBefore;
};

// Rules of one shape, none of which has a frame in common with another, as one map of that name and the steps that look
// it up.
//
//   -p 0x800 --ip-source 10.0.0.1 --ip-protocol 17 --ip-destination-port 53 -j ACCEPT     (and others like it)
//   ->  type 0800, header length 5, no later fragment: look up (10.0.0.1, 17, 53)
//       type 0800, header length not 5, no later fragment: jump to a chain that knows the other lengths
//
// Rules about what follows an IPv6 header are also kept as they stand, for frames with extension headers. Masks that
// differ make a map of intervals.
std::vector<Step> runOf(const std::string& name, const std::vector<KeyedItem>& run, const Surroundings& surroundings);

} // namespace compiled
