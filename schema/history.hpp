// The history of changes: who, from where, when, by which command, and every row before and after.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace schema
{

// Whoever changes rows adds an entry in the same transaction, and takes out the oldest ones beyond maximumHistory.
inline constexpr std::string_view historyTable = "MoatKeeperHistory";
namespace history
{
inline constexpr std::string_view number = "Number";   // one more than the newest before it; unique
inline constexpr std::string_view time = "Time";       // UTC: 2026-01-31T12:00:00.123Z
inline constexpr std::string_view user = "User";       // the name, with sudo "root (alice)"
inline constexpr std::string_view address = "Address"; // from where the user is connected by SSH; else empty
inline constexpr std::string_view host = "Host";       // the machine that the command ran on
inline constexpr std::string_view verb = "Verb";       // the command on one line
inline constexpr std::string_view rows = "Rows";       // how many changed
inline constexpr std::string_view changes = "Changes"; // schema/server/recorded_change.hpp; empty: too long to be kept
inline constexpr std::string_view undoes = "Undoes";   // the entry whose change this one takes back; else 0
inline constexpr std::string_view sum = "Sum";         // of all rows if the history tells of all changes: row_sum.hpp
} // namespace history

inline constexpr std::int32_t maximumHistory = 100;
inline constexpr std::size_t maximumChanges = 4'000'000; // bytes of one entry's Changes

} // namespace schema
