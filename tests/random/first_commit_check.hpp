// The pure answer to what the handler makes of some tables, held against the handler itself.
#pragma once

#include "platform_fake/memory_tables.hpp"

#include <string>

namespace randomtest
{

// Has a new handler read the tables and commit, and compares the lines that it queues and, by what it logs, the
// rows without lines with what firstCommit says. Empty when all agree, else the first difference. Takes what the
// handler logs out of the captured log.
std::string compareFirstCommit(const fake::MemoryTables& tables);

} // namespace randomtest
