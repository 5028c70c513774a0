// Warnings that somebody has looked at and found right. Kept on the server beside the rows, so that whoever checks the
// configuration, here or from a copy, sees the same.
#pragma once

#include "moatctl/tables/table_names.hpp"

#include <compare>
#include <cstdint>
#include <string>

namespace moatctl
{

// A warning about a row. Its text is part of it: should the check have something else to say, it says it.
struct Acknowledged {
    TableId table = TableId::Global;
    std::int32_t id = 0;
    std::string warning;
    auto operator<=>(const Acknowledged&) const = default;
};

// `MoatKeeperRuleset Id 5: never reached: ...`
std::string toText(const Acknowledged& acknowledged);

} // namespace moatctl
