// The way back: two tables beside the six that say which changes are in force, and where.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace schema
{

// One row. Who changes the configuration raises the number in the same transaction.
inline constexpr std::string_view changeTable = "MoatKeeperChange";
inline constexpr std::string_view changeNumber = "Number";
// The form that the rules are to have in the devices' kernels; empty is plain.
inline constexpr std::string_view changeEngine = "Engine";
inline constexpr std::string_view compiledEngine = "compiled";
inline constexpr std::string_view plainEngine = "plain";
// In which a device writes its row again although nothing is new, in seconds; 0: it does not.
inline constexpr std::string_view changeHeartbeat = "Heartbeat";
inline constexpr std::int32_t longestHeartbeat = 86'400;
// The number after the last one is 0. The schema lets this one in for the moment between adding 1 and taking the rest.
inline constexpr std::int32_t changeNumbers = 2'000'000'000;

// Whether the device that has put `inForce` in force has seen the change `number`, at most half of all numbers ago.
constexpr bool includes(std::int32_t inForce, std::int32_t number)
{
    return inForce >= 0 && (std::int64_t{inForce} - number + changeNumbers) % changeNumbers < changeNumbers / 2;
}

// How many changes after `inForce` the change `number` is; both are numbers of changes.
constexpr std::int32_t changesBetween(std::int32_t inForce, std::int32_t number)
{
    return static_cast<std::int32_t>((std::int64_t{number} - inForce + changeNumbers) % changeNumbers);
}

// A row for each device, which the device writes itself. All but the name is gone when the server starts anew, until
// the device has written it again. Times are UTC: 2026-01-31T12:00:00.123Z.
inline constexpr std::string_view deviceTable = "MoatKeeperDevice";
namespace device
{
inline constexpr std::string_view name = "Name";
inline constexpr std::string_view number = "Number";                   // the change in force; -1: none yet
inline constexpr std::string_view since = "Since";                     // when that came into force
inline constexpr std::string_view inStep = "InStep";                   // 1: the kernel holds what the daemon wants
inline constexpr std::string_view inStepSince = "InStepSince";         // since when it does, or does not
inline constexpr std::string_view reason = "Reason";                   // why it does not
inline constexpr std::string_view rules = "Rules";                     // how many the kernel holds of ours
inline constexpr std::string_view notInForce = "NotInForce";           // "line TAB reason" of each, one a line
inline constexpr std::string_view notInForceCount = "NotInForceCount"; // of all, also those beyond maximumNotInForce
inline constexpr std::string_view repaired = "Repaired";               // when another program's change was put right
inline constexpr std::string_view repairedWhat = "RepairedWhat";       // who had changed what
inline constexpr std::string_view engine = "Engine";   // the form of the rules there, and why not another
inline constexpr std::string_view version = "Version"; // the daemon's
inline constexpr std::string_view started = "Started"; // when the daemon did; empty: it was stopped
inline constexpr std::string_view seen = "Seen";       // when the row was written last
} // namespace device

inline constexpr std::size_t maximumNotInForce = 1'000;
inline constexpr std::size_t maximumDeviceName = 64;

// Letters, digits, '.', '-' and '_', as a host name has them, and not more than fit.
bool isDeviceName(std::string_view text);

} // namespace schema
