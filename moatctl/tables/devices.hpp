// What the devices say of themselves: which change is in force there, and what is not (schema/device.hpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ovsdb
{
class Client;
class TableCache;
} // namespace ovsdb

namespace moatctl
{

// A line that a device has not put in force, as the daemon queued it (made one line, and cut when it is very long).
struct DeviceLine {
    std::string line;
    std::string reason;
};

struct Device {
    std::string name;
    std::int32_t number = -1;
    std::string since;
    bool inStep = false;
    std::string inStepSince;
    std::string reason;
    std::int32_t rules = 0;
    std::string notInForce;
    std::size_t notInForceCount = 0;
    std::string repaired;
    std::string repairedWhat;
    std::string engine; // "compiled", "plain", or "plain: " and why
    std::string version;
    std::string started;
    std::string seen; // when the row was written last

    // Whether its daemon has said anything since the server was started, and has not been stopped since.
    bool reports() const { return !started.empty(); }
    // Whether the change with this number is in force there.
    bool hasReached(std::int32_t change) const;
    // The first ones of notInForceCount.
    std::vector<DeviceLine> lines() const;
};

// By name.
std::vector<Device> devicesOf(const ovsdb::TableCache& cache);

// How many devices count, and on how many of these the change with this number is in force. Those count whose daemon
// reports; if none does, all.
struct Reached {
    std::size_t devices = 0;
    std::size_t reached = 0;
};
Reached reached(const ovsdb::TableCache& cache, std::int32_t change);

// The number of the last change; nothing where none was counted yet.
std::optional<std::int32_t> changeNumberOf(const ovsdb::TableCache& cache);

// Whether the server has a place for all this.
bool tellsWhatIsInForce(const ovsdb::Client& client);

} // namespace moatctl
