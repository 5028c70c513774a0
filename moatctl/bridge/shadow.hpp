// Rules that no frame reaches, because earlier ones take all their frames.
#pragma once

#include "ebtables/table.hpp"

#include <cstddef>
#include <vector>

namespace moatctl
{

struct Shadowed {
    const ebtables::TableRule* rule = nullptr;
    // One that takes its frames, at least those of one way to the rule; null: the end of `byChain`.
    const ebtables::TableRule* byRule = nullptr;
    const ebtables::Chain* byChain = nullptr;
    bool same = false; // the two match the same frames
};

// Each of them is certainly never reached, on any way to it. Not all such rules are found: only those whose frames a
// single earlier rule, or the end of a single earlier chain, takes. Addresses are the table's.
// Time: linear in the rules for rules of a few forms, whatever their values.
std::vector<Shadowed> findShadowed(const ebtables::Table& table);

} // namespace moatctl
