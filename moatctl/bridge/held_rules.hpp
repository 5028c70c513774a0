// The rules that the kernel holds, by the numbers by which it names them, and the rows that they are made of.
#pragma once

#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/frame.hpp"
#include "moatctl/bridge/kernel.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace moatctl
{

struct HeldRule {
    std::string chain;
    std::size_t position = 0; // from 1; 0: the chain's policy
    std::string text;
    std::string row;        // "MoatKeeperRuleset Id 5"; empty: none is known
    std::string table;      // the row's
    std::int32_t id = 0;    // 0: none
    bool isDaemons = false; // one of the daemon's own, which no row has made
};

class HeldRules
{
public:
    // Looks at the kernel anew; what was known and is no longer there stays known, for frames that have met it. False,
    // and a reason, when it cannot be read.
    bool load(const Applied& configured, std::string& reason);

    // nullptr when it is not known.
    const HeldRule* rule(std::uint64_t handle) const;
    // Of a chain of the kernel's own; nullptr likewise.
    const HeldRule* policy(const std::string& chain) const;

    // In the compiled form no message names a rule: which one decides the frame, by what the kernel holds. nullptr when
    // what is known of the frame does not tell, or when that had another fate by then.
    const HeldRule* decider(const Frame& frame, bool accepted) const;

private:
    void loadCompiled(const Applied& configured, KernelState state);

    std::map<std::uint64_t, HeldRule> m_rules;
    std::map<std::string, HeldRule> m_policies;
    ebtables::Table m_table; // of the compiled form, as rules; and these by chain and position:
    std::map<std::pair<std::string, std::size_t>, HeldRule> m_places;
};

} // namespace moatctl
