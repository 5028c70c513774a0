// The kernel's bridge table beside the one that a configuration makes.
#pragma once

#include "ebtables/table.hpp"

#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

enum class EntryState {
    Same,
    Missing,   // in the configuration, not in the kernel
    Extra,     // in the kernel, not in the configuration
    Different, // a policy that is another one, or a rule in another place
};

// A rule, or a chain with its policy.
struct Entry {
    EntryState state = EntryState::Same;
    std::string chain;
    std::size_t position = 0; // of a rule, from 1: in the kernel, for a missing one in the configuration; 0: the chain
    ebtables::Origin origin = ebtables::noOrigin; // in the wanted table
    std::string text;                             // the rule's options, or "policy ACCEPT"
    std::optional<ebtables::Counters> counters;   // of a rule in the kernel, when they are known
};

// Chain by chain, each followed by its rules. OUTPUT, which is not the daemon's, is left out. Time: linear.
std::vector<Entry> compare(const ebtables::Table& wanted, const ebtables::Table& kernel);

} // namespace moatctl
