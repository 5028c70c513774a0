// What the machine says: the kernel's table, and when the daemon last changed it.
#pragma once

#include "ebtables/table.hpp"
#include "nftables/program_reader.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace moatctl
{

struct KernelState {
    ebtables::Table plain; // ebtables' own table
    nftables::HeldProgram compiled;

    bool isCompiled() const { return compiled.table != 0; }
};

// With counters. Nothing, and a reason in one line, when it cannot be read.
std::optional<KernelState> readKernel(std::string& reason);

// In either form: what is compiled comes back as the rules of `wanted`, which it was made of.
ebtables::Table rulesOf(KernelState state, const ebtables::Table& wanted);

using CommitTime = std::chrono::sys_time<std::chrono::nanoseconds>;

// Of the daemon that runs, or ran last; the time's zero when it has changed nothing yet. Nothing, and a reason, when
// that cannot be told.
std::optional<CommitTime> lastCommit(std::string& reason);

// Whether it has rules in the compiled form; costs next to nothing.
bool hasCompiled();

// How many transactions the nf_tables of this network namespace have seen, whoever made them. Nothing when it cannot be
// asked.
std::optional<std::uint32_t> transactions();

} // namespace moatctl
