// What the machine says: the kernel's table, and when the daemon last changed it.
#pragma once

#include "ebtables/table.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace moatctl
{

// With counters. Nothing, and a reason in one line, when it cannot be read.
std::optional<ebtables::Table> readKernel(std::string& reason);

using CommitTime = std::chrono::sys_time<std::chrono::nanoseconds>;

// Of the daemon that runs, or ran last; the time's zero when it has changed nothing yet. Nothing, and a reason, when
// that cannot be told.
std::optional<CommitTime> lastCommit(std::string& reason);

// How many transactions the nf_tables of this network namespace have seen, whoever made them. Nothing when it cannot be
// asked.
std::optional<std::uint32_t> transactions();

} // namespace moatctl
