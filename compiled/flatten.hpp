// First step: a chain as one list of rules, with the chains that every frame goes through in their places.
#pragma once

#include "ebtables/table.hpp"

#include <deque>
#include <vector>

namespace compiled
{

struct FlatRule {
    const ebtables::Rule* rule = nullptr; // in the table, or in `made`
    ebtables::Origin origin = ebtables::noOrigin;
};

struct FlatRules {
    std::vector<FlatRule> rules;
    std::deque<ebtables::Rule> made; // those that are in no table as they are
};

// The rules of the chain in their order. A jump without matches to a chain that no frame leaves early is replaced by
// that chain's rules; a policy that decides stands at the end of its chain as a rule without matches.
//
//   FORWARD: -i a -o b -j 10abMACblacklist       -i a -o b -j 10abMACblacklist
//            -j UserForwardRules            ->   -i a -o b -s 02:... -j DROP
//   UserForwardRules (policy RETURN):
//            -i a -o b -s 02:... -j DROP
//
// The policy of a chain that frames enter without a jump is left out: it stays one.
FlatRules flatten(const ebtables::Table& table, const ebtables::Chain& chain);

} // namespace compiled
