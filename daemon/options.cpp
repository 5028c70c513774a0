#include "daemon/options.hpp"

#include "handler/debug_mode.hpp"

#include <cstdlib>
#include <iostream>

#include <unistd.h>

namespace zol::moatkeeper
{

namespace
{

void printUsage()
{
    // The first line names another daemon. The text is an interface and stays as it is.
    std::cerr << "Usage: romswapd [options]\n"
                 " Options:\n"
                 "  -h: Print this help\n"
                 "  -b: Start as daemon instead of starting in foreground\n"
                 "  -d: Enable debug output\n"
                 "  -p <filepath>: PID file path (default: "
              << Options().pidFileLocation << ")\n";
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
            std::cout << "Daemonize: " << options.daemonize << std::endl;
            break;
        case 'd':
            g_debugMode = 1;
            std::cout << "Debug mode on" << std::endl;
            break;
        case 'p':
            options.pidFileLocation = optarg;
            std::cout << "PID file path: " << options.pidFileLocation << std::endl;
            break;
        default:
            std::cerr << "Unknown option: " << option << std::endl;
            printUsage();
            std::exit(EXIT_FAILURE);
        }
    }
    return options;
}

} // namespace zol::moatkeeper
