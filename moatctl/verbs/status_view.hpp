// What status shows: server, devices and kernel, side by side.
#pragma once

#include "ebtables/table.hpp"
#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/check/rows_not_in_force.hpp"
#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/devices.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

struct View {
    std::optional<Configuration> configuration;
    std::string server; // in words
    std::vector<Device> devices;
    std::optional<std::int32_t> number; // of the last change
    std::optional<ebtables::Table> kernel;
    std::string noKernel; // why there is none
    Expected expected;    // what the daemon makes of the configuration
    Applied applied;      // and the kernel of that
    std::vector<Entry> entries;
    std::string found; // "as configured", or what is not

    bool isAsConfigured() const { return configuration && kernel && found == asConfigured; }
    bool differs() const { return configuration && kernel && found != asConfigured; }
    // Those whose word counts: that report; all if none does.
    std::vector<const Device*> countingDevices() const;

    static constexpr const char* asConfigured = "as configured";
};

// Without the kernel where the configuration is that of other machines. If a daemon runs here, a change that it is
// about to carry out is waited for, the timeout at most.
std::unique_ptr<View> lookAround(Program& program, bool daemonRuns);

// Rows that are enabled and not in force, with the device where there are several.
struct NotInForceHere {
    std::string device;
    RowNotInForce row;
};
std::vector<NotInForceHere> notInForce(const View& view);

// Whether the device is as it should be, and in words how it is.
bool isInOrder(const Device& device, const View& view);
std::string inWords(const Device& device, const View& view);

} // namespace moatctl
