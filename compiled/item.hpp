// A rule on its way through the compiler.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

namespace compiled
{

struct Item {
    ebtables::Rule rule;
    ebtables::Origin origin = ebtables::noOrigin;
    bool operator==(const Item&) const = default;
};

// Whether a frame that matches goes no further in this chain, whatever follows.
inline bool isFinal(const ebtables::Rule& rule)
{
    return rule.target == "ACCEPT" || rule.target == "DROP" || rule.target == "RETURN";
}

} // namespace compiled
