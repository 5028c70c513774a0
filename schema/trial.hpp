// A change that goes back by itself unless it is confirmed in time.
#pragma once

#include <cstdint>
#include <string_view>

namespace schema
{

// One row at most, so that there is one trial at a time. It comes with the change, in its transaction, and goes when
// the change is confirmed or put back. Until then moatctl changes nothing else.
inline constexpr std::string_view trialTable = "MoatKeeperTrial";
namespace trial
{
inline constexpr std::string_view change = "Change";   // the number of the change in the history
inline constexpr std::string_view seconds = "Seconds"; // how long it may wait
inline constexpr std::string_view began = "Began";     // UTC: 2026-01-31T12:00:00.123Z
inline constexpr std::string_view boot = "Boot";       // which run of the kernel the next one is of
inline constexpr std::string_view uptime = "Uptime";   // milliseconds since that began, when the trial began
inline constexpr std::string_view user = "User";       // as in the history
inline constexpr std::string_view verb = "Verb";       // likewise
inline constexpr std::string_view changes = "Changes"; // likewise, never empty
} // namespace trial

inline constexpr std::int32_t longestTrial = 86'400; // seconds

} // namespace schema
