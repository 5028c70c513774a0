// The command line.
#pragma once

#include <string>

namespace zol::moatkeeper
{

struct Options {
    bool daemonize = false;
    std::string pidFileLocation = "/var/run";
};

// Reads the options in the order given, printing what each one does, and sets g_debugMode for -d. Ends the
// process with status 0 for -h and with status 1 for a bad option, after the usage text.
Options parseOptions(int argc, char* argv[]);

} // namespace zol::moatkeeper
