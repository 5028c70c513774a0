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

// These, the two that say what is in force, the change that waits to be confirmed, and of each
// entry of the history its number and sum: what a change needs to know.
// A server of schema 1.0 lacks them. Lives for ever.
const ovsdb::Database& serverDatabaseWithDevices();

// What the devices say of themselves, without the lines that are not in force, and what that is held against: the
// number of the last change, the heartbeat, and of each entry of the history its time. Lives for ever.
const ovsdb::Database& devicesDatabase();

// The history with all that its entries hold (schema/history.hpp). Lives for ever.
const ovsdb::Database& historyDatabase();

} // namespace schema
