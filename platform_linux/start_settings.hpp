// What holds between the daemon's start and its first commit, as the environment says: set by the unit, from a file
// that the administrator writes.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zol::cfg
{

struct StartSettings {
    // Each as the environment has it; null: not set, which is the same as empty.
    struct Variables {
        const char* untilConfigured = nullptr; // MOATKEEPER_UNTIL_CONFIGURED: open or closed
        const char* allowed = nullptr;         // MOATKEEPER_ALLOWED: names of ports and MAC addresses
        const char* waitSeconds = nullptr;     // MOATKEEPER_WAIT_SECONDS: a number
    };

    bool closed = false;            // until there is a configuration; but for:
    std::vector<std::string> ports; // these, a '+' at the end for all that begin so
    std::vector<std::string> macs;  // these, each with or without a mask
    std::chrono::seconds wait{30};  // so long the service manager waits for the first commit at most

    std::vector<std::string> problems; // what was not as expected, one line each

    // What cannot be understood is left out and told; of the first variable it counts as closed, because whoever sets
    // it wants something else than what holds without it.
    static StartSettings from(const Variables& variables);
    static StartSettings fromEnvironment();

    // The lines that close the bridge; what is allowed passes. A port: what comes in by it to the device itself, and
    // what goes from one such port to another. An address: what comes from it or goes to it.
    std::vector<std::string> closingLines() const;
};

} // namespace zol::cfg
