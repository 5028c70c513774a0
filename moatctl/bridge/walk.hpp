// The way of a frame through the chains.
#pragma once

#include "ebtables/table.hpp"
#include "moatctl/bridge/frame.hpp"

#include <cstddef>
#include <vector>

namespace moatctl
{

// One thing that a frame meets. The addresses are the table's.
struct Step {
    const ebtables::Chain* chain = nullptr;
    std::size_t position = 0;                  // of the rule in its chain, from 0
    const ebtables::TableRule* rule = nullptr; // null: the end of the chain, where its policy holds
    unsigned depth = 0;                        // how many jumps deep
    MatchResult result;                        // of the rule; Yes for a policy

    // Of the rule, else of the policy.
    ebtables::Origin origin() const { return rule != nullptr ? rule->origin : chain->policyOrigin; }
};

enum class Fate { Accept, Drop, Unknown };

struct Walk {
    Fate fate = Fate::Accept;
    std::vector<Step> steps; // the last one decides; when the fate is unknown, it is the one that cannot be decided
};

// The frame's way: from FORWARD when it has a port to leave by, else from INPUT.
Walk walk(const ebtables::Table& table, const Frame& frame);

} // namespace moatctl
