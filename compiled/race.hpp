// Fifth step: rules of several shapes, in an order that matters, as a race.
#pragma once

#include "compiled/making.hpp"

#include <functional>
#include <string>
#include <vector>

namespace compiled
{

// Rules of the same form have the same parts and masks, so that no frame matches two with different values. Each form
// has two maps: one says where in the list the rule with a key is, the other what it does.
//
//   1  -s A -j DROP            place in src?              then on in race/src
//   2  -d B -j ACCEPT    ->    place in dst?              then on in race/dst
//   3  -s C -j DROP            (no rule matches)
//                              race/src:  place in dst, before that in src?   then on in race/dst
//                                         what src says
//                              race/dst:  what dst says
//
// The chain that a frame is in says whose rule is ahead, so each form is asked once, and once more when it may be
// overtaken. What is added to the list between others changes the elements of its own rule only.
//
// Frames whose ports and protocols are not at their usual places go other ways: IPv4 headers of each other length a
// race of their own where that is shorter, all others a chain with the rules as they are written.
//
// rules: with their keys; at most mostInRace. asWritten: gives the name of a chain that has these rules, and all behind
// them, as they are; those that no frame of the family meets may be missing.
std::vector<Step> raceOf(const std::string& name, const FormedRules& rules, Making& making,
                         const std::function<std::string(Family)>& asWritten);

} // namespace compiled
