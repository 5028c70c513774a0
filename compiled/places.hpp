// The places of rules in a race: numbers in the order of the list, with room between them for rules to come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace compiled
{

using Place = std::uint16_t;

inline constexpr std::size_t mostInRace = 32'768; // half of all places, so that there is room

// Ascending places for rules of which some had one before. As many as can keep theirs do; others only move where there
// is no room left between their neighbours.
//
//   before: 100, none, 300, 200, 400    ->    100, 200, 300, 350, 400
//
// before: at most mostInRace. Time: n log n.
std::vector<Place> placesFor(const std::vector<std::optional<Place>>& before);

} // namespace compiled
