// The tables as the client of the configuration server takes them.
#pragma once

#include "ovsdb/database.hpp"

#include <string_view>

namespace schema
{

// The six tables of the configuration, and what clients keep beside it, which a server may be without: warnings that
// were acknowledged (Table, Row, Warning), and for each table the largest Id that it ever had (Table, LargestId).
// Lives for ever.
const ovsdb::Database& serverDatabase();
inline constexpr std::string_view acknowledgedTable = "MoatKeeperAcknowledged";
inline constexpr std::string_view usedIdsTable = "MoatKeeperUsedIds";

// These and the two that say what is in force; a server of schema 1.0 lacks the two. Lives for ever.
const ovsdb::Database& serverDatabaseWithDevices();

} // namespace schema
