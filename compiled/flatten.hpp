// First step: a chain as one list of rules, with the chains that every frame goes through in their places.
#pragma once

#include "ebtables/table.hpp"

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace compiled
{

// What tells a rule from others without a look at it.
struct RuleTag {
    ebtables::Origin origin = ebtables::noOrigin;
    std::uint64_t number = 0; // as the table has it; 0 for one that must be looked at
    bool operator==(const RuleTag&) const = default;
};

struct FlatRule {
    const ebtables::Rule* rule = nullptr; // in the table, or in `made`
    RuleTag tag;
};

struct FlatRules {
    bool isKnownInFull = true; // otherwise the chain, or one in its place, has a rule with parts that are not known
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
//
// before: those that the same chain gave the last time. Rules that are among them are not looked at again.
FlatRules flatten(const ebtables::Table& table, const ebtables::Chain& chain, std::span<const RuleTag> before = {});

} // namespace compiled
