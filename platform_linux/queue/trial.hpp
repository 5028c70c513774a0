// Finds out which rules the kernel refuses, where no frame meets them.
#pragma once

#include "ebtables/command.hpp"
#include "platform_linux/queue/tool.hpp"
#include "platform_linux/queue/transaction.hpp"

#include <span>
#include <vector>

namespace ebtables
{

struct Trial {
    std::vector<Refused> refused;
    unsigned processes = 0; // started for this
};

// The tool lists some 16 refused rules of a transaction, however many there are, and each transaction that is rolled
// back costs the kernel a grace period. So rules with the same options as those listed are tried in small transactions,
// many at a time, each in a network namespace of its own. Whether the kernel takes a rule hardly ever depends on its
// chain: there they are all in the same one, with jumps replaced.
//
// listed: what the tool said of the commands, ascending by index; these are not in the result. done: the commands that
// are not to be tried any more. What the result does not name may be refused all the same: where no namespace can be
// made, nothing is found.
Trial tryElsewhere(const ToolPaths& paths, std::span<const Command> commands, std::span<const Refused> listed,
                   const std::vector<bool>& done, const RunLimits& limits = {});

} // namespace ebtables
