// First step: a chain as one list of rules, with the chains that every frame goes through in their places.
#pragma once

#include "compiled/item.hpp"

#include <vector>

namespace compiled
{

// The rules of the chain in their order. A jump without matches to a chain that no frame leaves early is replaced by
// that chain's rules; a policy that decides stands at the end of its chain as a rule without matches.
//
//   FORWARD: -i a -o b -j 10abMACblacklist       -i a -o b -j 10abMACblacklist
//            -j UserForwardRules            ->   -i a -o b -s 02:... -j DROP
//   UserForwardRules (policy RETURN):
//            -i a -o b -s 02:... -j DROP
//
// The policy of a chain that frames enter without a jump is left out: it stays one.
std::vector<Item> flatten(const ebtables::Table& table, const ebtables::Chain& chain);

} // namespace compiled
