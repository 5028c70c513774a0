// Whether a change closes the way that a connection takes over the bridge.
#pragma once

#include "moatctl/bridge/connection.hpp"
#include "moatctl/tables/configuration.hpp"

#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

// The first of the frames that is not dropped before and is dropped after, and what drops it, in words: "192.0.2.7
// from 02:00:00:00:00:07 on port eth1: MoatKeeperRuleset Id 5 (rule 1 of UserInputRules) drops its frames". Nothing
// when all ways stay as open as they are. Where the fate of a frame cannot be told, it is not dropped.
std::optional<std::string> closedWay(const std::vector<ConnectionFrame>& frames, const Configuration& before,
                                     const Configuration& after);

} // namespace moatctl
