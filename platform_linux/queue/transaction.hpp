// Carries out commands: all in one transaction of the kernel, refused ones left out.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"
#include "platform_linux/queue/own_chains.hpp"
#include "platform_linux/queue/tool.hpp"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ebtables
{

// A command that the tool or the kernel refused.
struct Refused {
    std::size_t index = 0; // in the commands given
    std::string reason;    // in the tool's words
};

struct Outcome {
    // What is left to do when the tool cannot run at all: nothing was applied from `done` on.
    bool cannotRun = false;
    std::string reason;           // why it cannot run, and what to do about it
    std::string notAtomic;        // why the commands were carried out one by one; "": they were not
    bool stopped = false;         // cannotRun because a stop signal ended the wait
    std::size_t done = 0;         // commands carried out or refused, from the first on: all unless cannotRun
    std::vector<Refused> refused; // ascending by index
    unsigned processes = 0;       // started for this
};

// Carries out the commands in order, as if each were a line of its own, but so that the kernel's frames see all of
// them or none. Commands that are refused are left out and reported; the others are carried out. Only a chain that is
// made and deleted again by the same commands takes more than one transaction, and so do refusals that the tool does
// not explain.
//
// `own` says which chains of filters are ours before. When one cannot be made because somebody else has it, everything
// that would work on it is refused as well.
Outcome applyTransaction(const ToolPaths& paths, std::span<const Command> commands, const OwnChains& own,
                         const RunLimits& limits = {});

// The same with a tool that knows no transactions: one process a command.
Outcome applyOneByOne(const ToolPaths& paths, std::span<const Command> commands, OwnChains own,
                      const RunLimits& limits = {});

// The kernel's table now. Nothing when the tool cannot run; reason (when given) says why.
std::optional<Table> readTable(const ToolPaths& paths, std::string* reason = nullptr, const RunLimits& limits = {});

} // namespace ebtables
