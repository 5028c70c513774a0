// The PID file, and the way into the background.
#include "platform/daemon_control.h"
#include "platform/sysloglevel.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace
{

[[noreturn]] void fail(const ZOL_Daemon& daemon, const std::string& text)
{
    ZOL_Sysloglevel_error(ZOL_Sysloglevel_registerModul(daemon.name.c_str()), "daemonctl", 10, text);
    std::exit(EXIT_FAILURE);
}

pid_t readPid(const ZOL_Daemon& daemon)
{
    pid_t pid = 0;
    std::ifstream(daemon.pidFile) >> pid;
    return pid;
}

} // namespace

void ZOL_Daemon_construct(ZOL_Daemon& daemon, const char* name, const char* location)
{
    daemon.name = name;
    daemon.location = location;
    daemon.pidFile = daemon.location + "/" + daemon.name + ".pid";
}

bool ZOL_Daemon_occupiedPidFile(const ZOL_Daemon& daemon)
{
    const pid_t pid = readPid(daemon);
    return pid > 0 && pid != getpid() && (kill(pid, 0) == 0 || errno == EPERM);
}

void ZOL_Daemon_daemonize(ZOL_Daemon& daemon)
{
    if (::daemon(0, 0) != 0)
        fail(daemon, "cannot go into the background");
}

void ZOL_Daemon_createPidFile(ZOL_Daemon& daemon)
{
    const std::string temporary = daemon.pidFile + ".new";
    std::ofstream file(temporary);
    file << getpid() << std::endl;
    if (!file || std::rename(temporary.c_str(), daemon.pidFile.c_str()) != 0)
        fail(daemon, daemon.pidFile + " cannot be written; expected a folder that can");
}

void ZOL_Daemon_deletePidFile(const ZOL_Daemon& daemon)
{
    if (!ZOL_Daemon_occupiedPidFile(daemon))
        unlink(daemon.pidFile.c_str());
}
