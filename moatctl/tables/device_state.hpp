// How it stands with a device: what its row says, held against the last change and a clock.
#pragma once

#include "moatctl/tables/devices.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

// What all devices of a server are held against.
struct Reference {
    std::chrono::system_clock::time_point now{};
    std::optional<std::int32_t> number{}; // of the last change
    std::chrono::seconds heartbeat{};     // 0: a device that is cut off cannot be told
    std::vector<std::chrono::system_clock::time_point>
        changes{}; // when they were made, as far as is known, newest first
};

enum class Standing {
    InForce,   // the last change is
    InPart,    // it is, but lines are not
    Behind,    // an earlier one is
    NotInStep, // the kernel does not hold what the daemon wants
    Silent,    // two heartbeats have not come; what the row says may be long over
    Stopped,   // its daemon was
    Unheard,   // nobody has said anything since the server was started
};

struct DeviceState {
    Standing standing = Standing::Unheard;
    std::optional<std::int32_t> behind{};     // changes; nothing: not one is in force, or nobody counts
    std::optional<std::chrono::seconds> time; // for how long, where that is known
    bool atLeast = false;                     // for longer: the history does not go further back
};

DeviceState stateOf(const Device& device, const Reference& reference);

// Whether nothing has to be done.
inline bool isInOrder(const DeviceState& state)
{
    return state.standing == Standing::InForce;
}

// The state of each, and whether its word counts: devices whose daemon was stopped, or has not been heard of, do only
// where there are no others.
struct StandingDevice {
    Device device;
    DeviceState state;
    bool counts = true;
};
std::vector<StandingDevice> standingDevices(const ovsdb::TableCache& cache, std::chrono::system_clock::time_point now);

// Devices that had a change in force, from then on: each must keep it, be in step and heard of, and refuse no more
// lines. One whose daemon was stopped or started anew, as an upgrade does, is away until it has the change again; a
// daemon that is started once more after that and again is no upgrade.
class DeviceWatch
{
public:
    DeviceWatch() = default;
    DeviceWatch(const std::vector<StandingDevice>& before, std::int32_t change);

    // What is wrong, in words. Those that are away are not among it.
    std::vector<std::string> look(const std::vector<StandingDevice>& now);

    // What would be wrong with those that were away at the last look.
    const std::vector<std::string>& away() const { return m_away; }

private:
    struct Watched {
        std::string name;
        std::size_t notInForceCount = 0;
        std::string started; // last
        int starts = 0;
        bool away = false;
    };
    void look(Watched& watched, const StandingDevice& now, std::vector<std::string>& losses);

    std::vector<Watched> m_devices;
    std::int32_t m_change = 0;
    std::vector<std::string> m_away;
};

// "in force", "in part", ...
const char* nameOf(Standing standing);

// "12 s", "3 min 12 s", "5 h 3 min", "2 d 5 h".
std::string inWords(std::chrono::seconds time);

} // namespace moatctl
