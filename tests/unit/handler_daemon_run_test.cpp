// The daemon's entry function, driven by a scripted device. Each run is a process of its own, because options and
// signal handlers are the process's.
#include "daemon/run.hpp"
#include "handler/debug_mode.hpp"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/device.hpp"
#include "platform_fake/journal.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace
{

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const char* const usage = "Usage: romswapd [options]\n"
                          " Options:\n"
                          "  -h: Print this help\n"
                          "  -b: Start as daemon instead of starting in foreground\n"
                          "  -d: Enable debug output\n"
                          "  -p <filepath>: PID file path (default: /var/run)\n";

struct Outcome {
    int status = -1; // the exit status, or -1 when the process ended otherwise
    std::string out, err;
    std::vector<std::string> calls;
};

std::string contentOf(std::FILE* file)
{
    std::string text;
    std::rewind(file);
    for (int character = std::fgetc(file); character != EOF; character = std::fgetc(file))
        text += static_cast<char>(character);
    std::fclose(file);
    return text;
}

std::FILE* journalFile = nullptr;

void writeJournal()
{
    for (const std::string& line : fake::journal().lines())
        std::fprintf(journalFile, "%s%c", line.c_str(), '\0');
    std::fflush(journalFile);
}

// Runs the daemon with the options; prepare sets up the device first.
Outcome runDaemon(std::vector<std::string> options, const std::function<void(fake::Device&)>& prepare = {})
{
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    journalFile = std::tmpfile();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        fake::journal(); // constructed before the handler is set, so that it is still there when that runs
        std::atexit(writeJournal);
        fake::device() = fake::Device();
        if (prepare)
            prepare(fake::device());
        options.insert(options.begin(), "/usr/sbin/moatkeeper");
        std::vector<char*> argv;
        for (std::string& option : options)
            argv.push_back(option.data());
        argv.push_back(nullptr);
        fake::journal().record(true);
        std::exit(zol::moatkeeper::run(static_cast<int>(options.size()), argv.data()));
    }
    Outcome outcome;
    int status = 0;
    waitpid(child, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = contentOf(out);
    outcome.err = contentOf(err);
    const std::string journal = contentOf(journalFile);
    for (std::size_t begin = 0; begin < journal.size();) {
        const std::size_t end = journal.find('\0', begin);
        outcome.calls.push_back(journal.substr(begin, end - begin));
        begin = end + 1;
    }
    return outcome;
}

// The calls from one that starts with the text on.
std::vector<std::string> from(const std::vector<std::string>& calls, const std::string& start)
{
    auto call = calls.begin();
    while (call != calls.end() && !call->starts_with(start))
        ++call;
    return {call, calls.end()};
}

} // namespace

TEST(Run, StartsServesAndStopsInTheForeground)
{
    const Outcome outcome = runDaemon({}, [](fake::Device& device) { device.thenSignal(SIGTERM); });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.calls,
                ElementsAre("DefaultAssertHook()", "ZOL_Sysloglevel_construct2(\"\", \"/usr/sbin/moatkeeper\")",
                            "ZOL_Sysloglevel_registerModul(\"moatkeeper\")", "ZOL_Sysloglevel_set(0)",
                            "DefaultAssertHook::setSyslog(false)", "ZOL_Daemon_construct(\"moatkeeper\", \"/var/run\")",
                            "ZOL_Daemon_occupiedPidFile(/var/run/moatkeeper.pid)", "EventDispatcher()",
                            "NotificationHandler(\"/tmp/cfgserver.socket\", \"moatkeeper\", false, 60, 500, true)",
                            "ZOL_Sysloglevel_registerModul(\"moatkeeper\")", "trace moatkeeper:96: moatkeeper",
                            "NotificationHandler::registerConfigHandler()", "trace moatkeeper:107: getTableNames",
                            "NotificationHandler::initialize()", "EventDispatcher::handleEvents()",
                            "info main:149: run: exiting", "trace moatkeeper:101: ~moatkeeper",
                            "~NotificationHandler()", "~EventDispatcher()",
                            "ZOL_Daemon_deletePidFile(/var/run/moatkeeper.pid)", "~DefaultAssertHook()"));
}

TEST(Run, GoesIntoTheBackgroundBeforeItConnects)
{
    const Outcome outcome = runDaemon({"-b", "-p", "/run/x", "-b"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "Daemonize: 1\nPID file path: /run/x\nDaemonize: 1\n");
    EXPECT_EQ(outcome.err, "");
    std::vector<std::string> calls = from(outcome.calls, "ZOL_Daemon_construct");
    calls.resize(8);
    EXPECT_THAT(calls, ElementsAre("ZOL_Daemon_construct(\"moatkeeper\", \"/run/x\")",
                                   "ZOL_Daemon_occupiedPidFile(/run/x/moatkeeper.pid)", "ZOL_Sysloglevel_set(1)",
                                   "DefaultAssertHook::setSyslog(true)", "ZOL_Daemon_daemonize(moatkeeper)",
                                   "ZOL_Daemon_deletePidFile(/run/x/moatkeeper.pid)",
                                   "ZOL_Daemon_createPidFile(/run/x/moatkeeper.pid)", "EventDispatcher()"));
    EXPECT_THAT(outcome.calls, Contains("ZOL_Sysloglevel_set(0)"));
}

TEST(Run, DebugModeReachesTheHandlerButNotTheTraceLevel)
{
    const Outcome outcome = runDaemon({"-d"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "Debug mode on\n");
    EXPECT_THAT(outcome.calls, Contains("info moatkeeper:603: setDebugMode: Debug mode is set to 1!"));
    EXPECT_THAT(outcome.calls, Not(Contains(StartsWith("ZOL_Sysloglevel_changeTracelevel"))));
}

TEST(Run, ADebugFlagThatIsSetBeforeRaisesTheTraceLevel)
{
    const Outcome outcome = runDaemon({}, [](fake::Device&) { zol::moatkeeper::g_debugMode = 1; });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    std::vector<std::string> calls = from(outcome.calls, "ZOL_Sysloglevel_registerModul");
    calls.resize(3);
    EXPECT_THAT(calls, ElementsAre("ZOL_Sysloglevel_registerModul(\"moatkeeper\")",
                                   "ZOL_Sysloglevel_changeTracelevel(\"moatkeeper\", 1023)", "ZOL_Sysloglevel_set(0)"));
    EXPECT_THAT(outcome.calls, Contains("info moatkeeper:603: setDebugMode: Debug mode is set to 1!"));
}

TEST(Run, WithoutDebugModeTheHandlerIsNotTold)
{
    EXPECT_THAT(runDaemon({}).calls, Not(Contains(HasSubstr("setDebugMode"))));
}

TEST(Run, HelpComesAfterTheMessagesOfTheOptionsBeforeIt)
{
    const Outcome outcome = runDaemon({"-d", "-h", "-b"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "Debug mode on\n");
    EXPECT_EQ(outcome.err, usage);
    EXPECT_THAT(outcome.calls, Not(Contains(StartsWith("ZOL_Daemon"))));
}

TEST(Run, RefusesAnUnknownOptionAndAMissingArgument)
{
    for (const std::string option : {"-x", "-p"}) {
        const Outcome outcome = runDaemon({option});
        EXPECT_EQ(outcome.status, 1) << option;
        EXPECT_THAT(outcome.err, AllOf(StartsWith("/usr/sbin/moatkeeper: "),
                                       testing::EndsWith(std::string("\nUnknown option: 63\n") + usage)));
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.calls, Not(Contains(StartsWith("ZOL_Daemon"))));
    }
}

TEST(Run, RefusesASecondInstanceBeforeItTouchesThePidFile)
{
    for (const std::vector<std::string>& options : {std::vector<std::string>{}, {"-b"}}) {
        const Outcome outcome = runDaemon(options, [](fake::Device& device) { device.pidFileOccupied = true; });
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.calls, Contains("error main:104: Another process is already running. Exiting...\n"));
        EXPECT_THAT(outcome.calls, Not(Contains(StartsWith("ZOL_Daemon_deletePidFile"))));
        EXPECT_THAT(outcome.calls, Not(Contains(StartsWith("ZOL_Daemon_daemonize"))));
        EXPECT_THAT(outcome.calls, Not(Contains("EventDispatcher()")));
    }
}

TEST(Run, EachStopSignalEndsTheLoop)
{
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        const Outcome outcome = runDaemon({}, [&](fake::Device& device) {
            device.thenSignal(signal);
            device.thenThrow([] { throw std::runtime_error("waited again"); });
        });
        EXPECT_EQ(outcome.status, 0) << signal;
    }
}

TEST(Run, AStopRequestIsOneByteThatIsTestedBeforeTheFirstWait)
{
    static_assert(sizeof zol::moatkeeper::g_stopRequested == 1);
    const Outcome outcome = runDaemon({}, [](fake::Device&) { zol::moatkeeper::g_stopRequested = 1; });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.calls, Contains("NotificationHandler::initialize()"));
    EXPECT_THAT(outcome.calls, Not(Contains("EventDispatcher::handleEvents()")));
}

TEST(Run, ABrokenPipeDoesNotEndTheLoop)
{
    const Outcome outcome = runDaemon({}, [](fake::Device& device) {
        device.thenSignal(SIGPIPE);
        device.thenWakeUp();
        device.thenSignal(SIGTERM);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.calls, Contains("NotificationHandler::process()"));
}

TEST(Run, EventsAreProcessedBeforeTheNextWaitEvenWhenAStopCameWithThem)
{
    const Outcome outcome = runDaemon({}, [](fake::Device& device) {
        device.script.push_back([] {
            std::raise(SIGTERM);
            return true;
        });
    });
    EXPECT_EQ(outcome.status, 0);
    std::vector<std::string> calls = from(outcome.calls, "EventDispatcher::handleEvents()");
    calls.resize(3);
    EXPECT_THAT(calls, ElementsAre("EventDispatcher::handleEvents()", "NotificationHandler::process()",
                                   "info main:149: run: exiting"));
}

TEST(Run, ServesNotificationsAndCleansUp)
{
    const Outcome outcome = runDaemon({}, [](fake::Device& device) {
        device.tables.setRows("MoatKeeper",
                              {fake::Row().set("GlobalInputPolicy", "DROP").set("GlobalForwardingPolicy", "DROP")});
        device.thenConnect();
        device.thenSignal(SIGTERM);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.calls, Contains("addCommand(\"ebtables -P INPUT DROP\")"));
    const std::vector<std::string> end = from(outcome.calls, "info main:149");
    EXPECT_THAT(end, Contains("addCommand(\"ebtables -P INPUT ACCEPT\")"));
    EXPECT_THAT(from(end, "~NotificationHandler()"), Not(Contains(StartsWith("addCommand"))));
}

TEST(Run, EachChangedTableIsReadOnceBeforeTheCommit)
{
    const Outcome outcome = runDaemon({"-d"}, [](fake::Device& device) {
        device.thenConnect();
        device.thenNotify(
            {"MoatKeeperBridgeFilterRules", "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeper"});
        device.thenNotify({"MoatKeeperBridgeFilterRules"});
    });
    std::vector<std::string> calls;
    for (const std::string& call : outcome.calls) {
        if (call.starts_with("info moatkeeper:121:") || call.starts_with("trace moatkeeper:152:"))
            calls.push_back(call.substr(call.rfind(": ") + 2));
    }
    EXPECT_THAT(calls, ElementsAre("Notification on table   received.", "commitToSystem",
                                   "Notification on table  MoatKeeper received.",
                                   "Notification on table  MoatKeeperRuleset received.",
                                   "Notification on table  MoatKeeperBridgeFilters received.", "commitToSystem",
                                   "Notification on table  MoatKeeperBridgeFilterRules received.", "commitToSystem"));
}

// Where an exception can come from, between the construction of the dispatcher and the end of the loop.
TEST(Run, AnExceptionTakesDownWhatExistsAndGivesStatusOne)
{
    const auto fail = [] { throw std::runtime_error("broken"); };
    const std::vector<std::function<void(fake::Device&)>> places = {
        [&](fake::Device& device) { device.onDispatcherConstruct = fail; },
        [&](fake::Device& device) { device.onNotificationHandlerConstruct = fail; },
        [&](fake::Device& device) { device.onInitialize = fail; },
        [&](fake::Device& device) { device.thenThrow(fail); },
        [&](fake::Device& device) {
            device.onProcess = fail;
            device.thenWakeUp();
        },
        [&](fake::Device& device) {
            device.queue.onProcess = fail;
            device.thenConnect();
        }};
    for (std::size_t i = 0; i < places.size(); ++i) {
        const Outcome outcome = runDaemon({}, places[i]);
        EXPECT_EQ(outcome.status, 1) << i;
        const std::vector<std::string> end = from(outcome.calls, "error main:");
        EXPECT_THAT(end, ElementsAre("error main:153: broken", "ZOL_Daemon_deletePidFile(/var/run/moatkeeper.pid)",
                                     "~DefaultAssertHook()"))
            << i;
        for (const std::string name : {"EventDispatcher()", "NotificationHandler("}) {
            const auto made = testing::Contains(StartsWith(name));
            const auto gone = testing::Contains(StartsWith("~" + name.substr(0, name.find('(')) + "()"));
            EXPECT_EQ(testing::Matches(made)(outcome.calls), testing::Matches(gone)(outcome.calls)) << i << name;
        }
        const bool handlerMade = testing::Matches(Contains("trace moatkeeper:96: moatkeeper"))(outcome.calls);
        EXPECT_EQ(handlerMade, testing::Matches(Contains("trace moatkeeper:101: ~moatkeeper"))(outcome.calls)) << i;
        EXPECT_EQ(handlerMade, i >= 2) << i;
        EXPECT_THAT(outcome.calls, Not(Contains("info main:149: run: exiting"))) << i;
    }
}

// The clean-up is the last that can fail: what was made is taken down all the same.
TEST(Run, AnExceptionInTheCleanUpGivesStatusOne)
{
    const std::vector<std::pair<std::function<void()>, std::string>> failures = {
        {[] { throw std::runtime_error("queue full"); }, "error main:153: queue full"},
        {[] { throw 5; }, "error main:158: Unknown exception"}};
    for (const auto& [fail, message] : failures) {
        const Outcome outcome = runDaemon({}, [&fail = fail](fake::Device& device) {
            device.thenConnect();
            device.script.push_back([&device, fail] {
                device.queue.onProcess = fail;
                std::raise(SIGTERM);
                return false;
            });
        });
        EXPECT_EQ(outcome.status, 1) << message;
        std::vector<std::string> end = from(outcome.calls, "info main:149: run: exiting");
        std::erase_if(end, [](const std::string& call) { return call.starts_with("addCommand"); });
        EXPECT_THAT(end, ElementsAre("info main:149: run: exiting", "trace moatkeeper:101: ~moatkeeper",
                                     "~NotificationHandler()", "~EventDispatcher()", message,
                                     "ZOL_Daemon_deletePidFile(/var/run/moatkeeper.pid)", "~DefaultAssertHook()"));
    }
}

TEST(Run, ACleanUpThatFailsAfterAnotherExceptionIsLogged)
{
    const Outcome outcome = runDaemon({}, [](fake::Device& device) {
        device.thenConnect();
        device.thenThrow([&device] {
            device.queue.onProcess = [] { throw std::runtime_error("queue full"); };
            throw std::runtime_error("broken");
        });
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(from(outcome.calls, "error "),
                ElementsAre("error moatkeeper:104: ~moatkeeper: queue full", "~NotificationHandler()",
                            "~EventDispatcher()", "error main:153: broken",
                            "ZOL_Daemon_deletePidFile(/var/run/moatkeeper.pid)", "~DefaultAssertHook()"));
}

TEST(Run, AnExceptionOfAnotherKindIsReportedToo)
{
    const Outcome outcome =
        runDaemon({}, [](fake::Device& device) { device.thenThrow([] { throw "no standard exception"; }); });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(from(outcome.calls, "error main:"),
                ElementsAre("error main:158: Unknown exception", "ZOL_Daemon_deletePidFile(/var/run/moatkeeper.pid)",
                            "~DefaultAssertHook()"));
}
