#include "daemon/run.hpp"

#include "daemon/options.hpp"
#include "handler/debug_mode.hpp"
#include "handler/moatkeeper.hpp"
#include "platform/assert_hook.hpp"
#include "platform/daemon_control.h"
#include "platform/event_dispatcher.hpp"
#include "platform/notification_handler.hpp"
#include "platform/sysloglevel.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

namespace zol::moatkeeper
{

std::atomic<unsigned char> g_stopRequested = 0;

namespace
{

constexpr const char* label = "main";
constexpr const char* daemonName = "moatkeeper";
constexpr const char* configurationServer = "/tmp/cfgserver.socket";

// How the connection is kept: a server that is not there yet may come later.
constexpr bool failWithoutServer = false;
constexpr int requestTimeoutSeconds = 60;
constexpr int reconnectIntervalMs = 500;
constexpr bool reconnect = true;

void requestStop(int /*signal*/)
{
    g_stopRequested = 1;
}

void ignoreSignal(int /*signal*/) {}

void installSignalHandlers()
{
    for (const int stopSignal : {SIGINT, SIGTERM, SIGQUIT})
        std::signal(stopSignal, requestStop);
    // A write to a closed connection must not end the process.
    std::signal(SIGPIPE, ignoreSignal);
}

// Connects, serves notifications until a stop signal arrives, and takes down what it built, in reverse order.
void serve(ZOL_Sysloglevel_Module logModule)
{
    tessera::net::EventDispatcher dispatcher;
    cfg::NotificationHandler notifications(configurationServer, dispatcher, std::string(daemonName), failWithoutServer,
                                           requestTimeoutSeconds, reconnectIntervalMs, reconnect);
    moatkeeper handler;
    if (g_debugMode)
        handler.setDebugMode(true);

    notifications.registerConfigHandler(&handler);
    notifications.initialize();

    while (g_stopRequested == 0) {
        if (dispatcher.handleEvents())
            notifications.process();
    }
    ZOL_Sysloglevel_info(logModule, label, 149, "run: exiting");
}

} // namespace

int run(int argc, char* argv[])
{
    error::DefaultAssertHook assertHook;
    ZOL_Sysloglevel_construct2("", argv[0]);
    const ZOL_Sysloglevel_Module logModule = ZOL_Sysloglevel_registerModul(daemonName);
    // Before the command line is read: option -d does not raise the trace level.
    if (g_debugMode)
        ZOL_Sysloglevel_changeTracelevel(daemonName, 1023);

    const Options options = parseOptions(argc, argv);
    ZOL_Sysloglevel_set(0);
    assertHook.setSyslog(false);

    ZOL_Daemon daemon;
    ZOL_Daemon_construct(daemon, daemonName, options.pidFileLocation.c_str());
    if (ZOL_Daemon_occupiedPidFile(daemon)) {
        ZOL_Sysloglevel_error(logModule, label, 104, "Another process is already running. Exiting...\n");
        std::exit(EXIT_FAILURE);
    }
    if (options.daemonize) {
        ZOL_Sysloglevel_set(1);
        assertHook.setSyslog(true);
        ZOL_Daemon_daemonize(daemon);
        ZOL_Daemon_deletePidFile(daemon);
        ZOL_Daemon_createPidFile(daemon);
    }
    installSignalHandlers();

    int status = EXIT_SUCCESS;
    try {
        serve(logModule);
    } catch (const std::exception& failure) {
        ZOL_Sysloglevel_error(logModule, label, 153, failure.what());
        status = EXIT_FAILURE;
    } catch (...) {
        ZOL_Sysloglevel_error(logModule, label, 158, "Unknown exception");
        status = EXIT_FAILURE;
    }
    ZOL_Daemon_deletePidFile(daemon);
    return status;
}

} // namespace zol::moatkeeper
