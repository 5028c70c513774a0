#include "moatctl/bridge/daemon.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace moatctl
{

namespace
{

namespace fs = std::filesystem;

std::string firstLine(const fs::path& path)
{
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

// Another namespace's daemon has bridge tables of its own. What may not be read counts as ours; a process that has
// ended has no namespace any more.
bool isInOurNetwork(const std::string& pid)
{
    std::error_code theirs;
    std::error_code ours;
    const fs::path there = fs::read_symlink("/proc/" + pid + "/ns/net", theirs);
    const fs::path here = fs::read_symlink("/proc/self/ns/net", ours);
    return theirs ? theirs == std::errc::permission_denied : ours || there == here;
}

// A process that is the daemon: by its program's name, which anybody may read.
bool isDaemon(const std::string& pid)
{
    return !pid.empty() && std::ranges::all_of(pid, [](char c) { return c >= '0' && c <= '9'; }) &&
           firstLine("/proc/" + pid + "/comm") == "moatkeeper" && isInOurNetwork(pid);
}

} // namespace

std::optional<std::string> daemonPid(const std::string& pidFolder)
{
    if (std::string pid = firstLine(fs::path(pidFolder) / "moatkeeper.pid"); isDaemon(pid))
        return pid;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        if (std::string pid = entry->path().filename(); isDaemon(pid))
            return pid;
    }
    return std::nullopt;
}

} // namespace moatctl
