// Daemon control: the PID file that guards against a second instance, and the way into the background.
//
// Threading: the daemon's one thread, before it starts any work.
// Failure: what cannot be done (a folder that does not exist or cannot be written, a failing fork) is
// logged at error level, naming the folder and the reason, and ends the process with status 1.
#pragma once

#include <string>

// What the functions below need to know of the daemon. Filled by ZOL_Daemon_construct; nothing to release.
struct ZOL_Daemon {
    std::string name;     // also the file's name, with ".pid" behind it
    std::string location; // folder of the PID file
    std::string pidFile;  // location/name.pid
    int parentPipe = -1;  // tells the waiting parent of a daemonized process that the PID file is written
};

// Prepares the record for a daemon called name with its PID file in the folder location, which must exist. It must be
// writable, too; of the system's usual folder for PID files only ZOL_Daemon_daemonize demands that.
void ZOL_Daemon_construct(ZOL_Daemon& daemon, const char* name, const char* location);

// True when the PID file names a process that is running, whatever its program is called. A number that another
// program has got meanwhile (after a power cut, say) does not count: that one is younger than the file.
bool ZOL_Daemon_occupiedPidFile(const ZOL_Daemon& daemon);

// Detaches into the background; returns in the daemon process only. The parent leaves with status 0
// once the daemon has written its PID file, with status 1 when the daemon ends before that.
void ZOL_Daemon_daemonize(ZOL_Daemon& daemon);

// Write, atomically, and remove the PID file. Removing leaves a file alone that names another running
// instance; removing a file that is not there is no error, one that cannot be removed gets a warning.
void ZOL_Daemon_createPidFile(ZOL_Daemon& daemon);
void ZOL_Daemon_deletePidFile(const ZOL_Daemon& daemon);
