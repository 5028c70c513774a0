// What matrix and report say of a matrix.
#pragma once

#include "moatctl/bridge/matrix.hpp"
#include "moatctl/verbs/scene.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// "open", "closed", "partly" or "unknown".
const char* nameOf(Passage passage);
// "ACCEPT", "DROP" or "UNKNOWN".
const char* nameOf(Fate fate);

// The rule, or the policy at the end of the chain, as the tool writes it.
std::string textOf(const ebtables::Chain& chain, const ebtables::TableRule* rule);

// The row as its verb calls it: "rule 5", "global"; or "no row", "the daemon's own".
std::string shortNameOf(const Scene& scene, ebtables::Origin origin);

// All ports that matter: of bridges here, unless it is a file that is looked at, of rules, and those of the question.
std::vector<std::string> portsOf(const Scene& scene, bool here, const MatrixWays& ways);

} // namespace moatctl
