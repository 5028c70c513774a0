// The bridge's filter table as values: what the kernel has, or what it is to have.
#pragma once

#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/rule_pool.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zol::cfg
{

struct ImageRule {
    RulePool::Text text = nullptr; // nothing: a rule that only others understand
    RulePool::Text jump = nullptr; // the chain that it leads to
    std::uint64_t handle = 0;      // 0: not in the kernel, as far as is known
    bool ours = false;
};

struct ImageChain {
    bool builtIn = false;
    bool present = true;            // a built-in one that nobody has used yet is not there; it counts as empty
    bool ours = false;              // we made it: everything in it is ours
    bool policyIsOurs = false;      // of a chain that is not ours
    std::string policy;             // a user chain's is RETURN when it has no rule for it
    std::uint64_t policyHandle = 0; // that rule, at a user chain's end
    std::vector<ImageRule> rules;   // that one not among them
};

struct TableImage {
    std::uint64_t table = 0; // the kernel's number for it; 0: there is none
    std::map<std::string, ImageChain, std::less<>> chains;

    // The three built-in chains, empty, as they are before anybody has used them.
    static TableImage untouched();

    ImageChain* find(std::string_view chain);
    const ImageChain* find(std::string_view chain) const;

    // What of this is ours, as a record for the next start.
    ebtables::Footprint footprint() const;
};

} // namespace zol::cfg
