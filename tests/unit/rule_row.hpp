// A row of the L2 rules as moatctl holds it, of which only Id and priority matter.
#pragma once

#include "moatctl/tables/configuration.hpp"

namespace moatctl
{

inline Row rule(std::int32_t id, std::int32_t priority)
{
    Row row(schema::table(TableId::Rules));
    row.set("Id", id);
    row.set("RulePrio", priority);
    row.set("InInterface", "eth0");
    row.set("Target", "DROP");
    return row;
}

} // namespace moatctl
