// Which record comes first. Pure.
#pragma once

#include <cstdint>

namespace zol::moatkeeper
{

// Orders by priority, for stable sorts: rows of equal priority stay in the order of their table.
constexpr bool comesBeforeAsRule(std::int32_t prio, std::int32_t otherPrio)
{
    return prio < otherPrio;
}
// The filter set up last has its jumps first in FORWARD, so the smallest priority goes to the end.
constexpr bool comesBeforeAsFilter(std::int32_t prio, std::int32_t otherPrio)
{
    return prio > otherPrio;
}

} // namespace zol::moatkeeper
