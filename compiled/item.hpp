// A rule on its way through the compiler.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

namespace compiled
{

struct Item {
    ebtables::Origin origin = ebtables::noOrigin;
    ebtables::Rule rule;
    bool operator==(const Item&) const = default;
};

// Which ports of a frame the way to a rule has decided: what the rule says of them is no match any more.
struct Decided {
    bool in = false;
    bool out = false;
    bool operator==(const Decided&) const = default;
};

inline ebtables::Rule ruleWithout(Decided decided, ebtables::Rule rule)
{
    if (decided.in)
        rule.in.reset();
    if (decided.out)
        rule.out.reset();
    return rule;
}

// Whether a frame that matches goes no further in this chain, whatever follows.
inline bool isFinal(const ebtables::Rule& rule)
{
    return rule.target == "ACCEPT" || rule.target == "DROP" || rule.target == "RETURN";
}

} // namespace compiled
