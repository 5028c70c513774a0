// Sixth step: a group of rules of one shape as steps of a chain.
#pragma once

#include "compiled/making.hpp"

#include <string>
#include <vector>

namespace compiled
{

// Rules of one shape, none of which has a frame in common with another, as one map of that name and the steps that look
// it up.
//
//   -p 0x800 --ip-source 10.0.0.1 --ip-protocol 17 --ip-destination-port 53 -j ACCEPT     (and others like it)
//   ->  type 0800, header length 5, no later fragment: look up (10.0.0.1, 17, 53)
//       type 0800, header length not 5, no later fragment: jump to a chain that knows the other lengths
//
// Rules about what follows an IPv6 header are also kept as they stand, for frames with extension headers. Masks that
// differ make a map of intervals.
std::vector<Step> runOf(const std::string& name, KnownRules run, Making& making);

} // namespace compiled
