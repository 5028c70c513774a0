// How far chains lead to each other.
#pragma once

#include "compiled/program.hpp"

#include <cstddef>
#include <span>
#include <string>

namespace compiled
{

// The kernel takes no more than 16 chains one behind the other, wherever a frame may go. One with a hook is two there:
// its steps are behind a jump (nftables/program.hpp).
inline constexpr std::size_t deepest = 15;

// A chain that leads to itself, which the kernel refuses, is counted once. ends: chains that are known to lead to no
// other.
std::size_t depthOf(const Program& program, std::span<const std::string> ends = {});

} // namespace compiled
