// What has to be done to one configuration to get another.
#pragma once

#include "moatctl/tables/configuration.hpp"

#include <iosfwd>
#include <string>
#include <vector>

namespace moatctl
{

// One row that is added (no before), removed (no after) or different. Points into the two configurations.
struct Change {
    const schema::Table* table;
    std::int32_t id;
    const Row* before;
    const Row* after;
};

// In the order of the tables, then by Id. Empty when the configurations are equal.
std::vector<Change> difference(const Configuration& before, const Configuration& after);

// `RulePrio 10, InInterface "eth0", Target "DROP"`: the Id and columns at their defaults are left out.
std::string valuesOf(const Row& row);

// `+ MoatKeeperRuleset Id 5: RulePrio 10, InInterface "eth0", Target "DROP"` (the values as above),
// `~ MoatKeeperRuleset Id 6: RulePrio 10 -> 20`, `- MoatKeeperRuleset Id 7: ...`.
std::string toText(const Change& change);

} // namespace moatctl
