// How far chains lead to each other.
#pragma once

#include "compiled/program.hpp"

#include <cstddef>

namespace compiled
{

// The kernel takes no more: chains one behind the other, wherever a frame may go, that with the hook among them.
inline constexpr std::size_t deepest = 16;

// A chain that leads to itself, which the kernel refuses, is counted once.
std::size_t depthOf(const Program& program);

} // namespace compiled
