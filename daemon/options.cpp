#include "daemon/options.hpp"

#include "handler/debug_mode.hpp"

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace zol::moatkeeper
{

namespace
{

void printUsage()
{
    // The first line names another daemon. The text is an interface and stays as it is.
    std::fprintf(stderr,
                 "Usage: romswapd [options]\n"
                 " Options:\n"
                 "  -h: Print this help\n"
                 "  -b: Start as daemon instead of starting in foreground\n"
                 "  -d: Enable debug output\n"
                 "  -p <filepath>: PID file path (default: %s)\n",
                 Options().pidFileLocation.c_str());
}

// What is said on the way is there at once, whoever reads it.
void say(const std::string& text)
{
    std::puts(text.c_str());
    std::fflush(stdout);
}

} // namespace

Options parseOptions(int argc, char* argv[])
{
    Options options;
    int option = 0;
    while ((option = getopt(argc, argv, "hbdp:")) != -1) {
        switch (option) {
        case 'h':
            printUsage();
            std::exit(EXIT_SUCCESS);
        case 'b':
            options.daemonize = true;
            say("Daemonize: 1");
            break;
        case 'd':
            g_debugMode = 1;
            say("Debug mode on");
            break;
        case 'p':
            options.pidFileLocation = optarg;
            say("PID file path: " + options.pidFileLocation);
            break;
        default:
            std::fprintf(stderr, "Unknown option: %d\n", option);
            printUsage();
            std::exit(EXIT_FAILURE);
        }
    }
    return options;
}

} // namespace zol::moatkeeper
