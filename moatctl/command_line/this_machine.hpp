// Whether this machine is one of those that have the configuration.
//
// With a server elsewhere (an endpoint that is ssl:, or tcp: to another machine) it is not: its kernel, interfaces and
// daemon say nothing of the configuration. A verb that is about these alone is refused; every other one leaves them
// out, and says so where they are missed. A device's own server is a socket on it, also when that is a relay of a
// centre.
#pragma once

#include "moatctl/check/check.hpp"

#include <string>

namespace moatctl
{

struct Program;

bool isElsewhere(const Program& program);

// For a verb that is about this machine alone: throws Failure(BadInput) if the configuration is that of others.
// instead: what to do then.
void requireThisMachine(const Program& program, const std::string& verb, const std::string& instead);

// Why nothing is known of the kernel; for an Elsewhere configuration.
std::string notLookedAt(const Program& program);

// With the look at this machine's interfaces that a check of the configuration takes, if it may.
CheckOptions checkHere(const Program& program);

} // namespace moatctl
