// What has to be done to the kernel's tables so that they are as they are to be: as little as possible.
#pragma once

#include "nftables/batch.hpp"
#include "platform_linux/queue/table_image.hpp"

#include <string>
#include <vector>

namespace zol::cfg
{

struct Change {
    enum class Kind {
        AddBuiltIn,  // with its policy
        SetPolicy,   // of a built-in chain
        DeleteRule,  // handle
        DeleteRules, // all of a chain
        AddChain,
        AddRule,        // the rule `index` of the wanted chain, at `place`, with the counters of the rule `handle`
        AddChainPolicy, // at the end of a user chain
        DeleteChain,
    };
    Kind kind;
    std::string chain;
    std::uint64_t handle = 0; // 0: none
    std::size_t index = 0;
    nftables::Place place = {};
};

// The changes in an order that the kernel takes: policies first, because it switches all rules at one moment but each
// policy when its turn comes. Rules that stay get their handles in `wanted`; the others there have handle 0.
//
// Where only a few of thousands of rules stay in a chain, it is filled anew, and the few keep their counters, but not
// their handles: the kernel goes through the whole chain for each rule that is deleted by its handle.
//
// Rules of others in a chain that is not ours must be in `wanted` in the order that they have; they stay.
std::vector<Change> difference(const TableImage& actual, TableImage& wanted);

// Fits what is wanted to tables that others have changed: what is ours stays wanted, what is theirs is taken over as it
// is. Rules that are ours are known by their handles in `known` (the tables as they were last seen, if they were), or
// by what `leftover` says that we, or a process before us, may have put there.
void fit(TableImage& wanted, const TableImage* known, TableImage& actual, const ebtables::Footprint& leftover);

} // namespace zol::cfg
