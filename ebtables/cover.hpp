// What can be said of matches without a frame: one implies the other, or no frame matches both.
//
// Both are one-sided: true is certain, false means only that it was not found out.
#pragma once

#include "ebtables/command.hpp"

#include <vector>

namespace ebtables
{

// Rules that must all match, such as the jumps on the way to a rule and the rule itself. Not null.
using Conjunction = std::vector<const Rule*>;

// Every frame that matches all of `inner` matches all of `outer`.
bool covers(const Conjunction& outer, const Conjunction& inner);

// No frame matches all of `a` and all of `b`.
bool disjoint(const Conjunction& a, const Conjunction& b);

} // namespace ebtables
