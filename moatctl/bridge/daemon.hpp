// The daemon as a process of this machine.
#pragma once

#include <optional>
#include <string>

namespace moatctl
{

// Of the PID file in the folder; a daemon in the foreground writes none and is looked for among all processes. One of
// another network namespace has bridge tables of its own and does not count.
std::optional<std::string> daemonPid(const std::string& pidFolder);

} // namespace moatctl
