#include "platform/daemon_control.h"

#include "platform_fake/device.hpp"
#include "platform_fake/journal.hpp"

void ZOL_Daemon_construct(ZOL_Daemon& daemon, const char* name, const char* location)
{
    fake::journal().note({"ZOL_Daemon_construct(\"", name, "\", \"", location, "\")"});
    daemon.name = name;
    daemon.location = location;
    daemon.pidFile = daemon.location + "/" + daemon.name + ".pid";
}

bool ZOL_Daemon_occupiedPidFile(const ZOL_Daemon& daemon)
{
    fake::journal().note({"ZOL_Daemon_occupiedPidFile(", daemon.pidFile, ")"});
    return fake::device().pidFileOccupied;
}

void ZOL_Daemon_daemonize(ZOL_Daemon& daemon)
{
    fake::journal().note({"ZOL_Daemon_daemonize(", daemon.name, ")"});
}

void ZOL_Daemon_createPidFile(ZOL_Daemon& daemon)
{
    fake::journal().note({"ZOL_Daemon_createPidFile(", daemon.pidFile, ")"});
}

void ZOL_Daemon_deletePidFile(const ZOL_Daemon& daemon)
{
    fake::journal().note({"ZOL_Daemon_deletePidFile(", daemon.pidFile, ")"});
}
