// Plays commands on an image of the tables, as the tool would carry them out.
#pragma once

#include "platform_linux/queue/table_image.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace zol::cfg
{

// A command with its texts in the pool: small, because one is kept for each line.
struct PlayedCommand {
    RulePool::Text chain = nullptr;
    RulePool::Text rule = nullptr; // Append, Insert, Delete; Policy: the policy
    RulePool::Text jump = nullptr;
    std::uint16_t position = 1;
    ebtables::CommandKind kind = ebtables::CommandKind::Append;
};

PlayedCommand intern(const ebtables::Command& command, RulePool& pool);

// Carries the command out on the image, or leaves it as it is and says why the tool would refuse.
std::optional<std::string> play(const PlayedCommand& command, TableImage& image);

} // namespace zol::cfg
