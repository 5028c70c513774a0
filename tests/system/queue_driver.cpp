// Drives a command queue from standard input, for tests and benchmarks.
//
// usage: queue_driver [--tools FOLDER] [--record FOLDER] [--time MS] [--first-pause MS]
// Each input line is a verb:
//   add LINE      addCommand          process       process        begin / end   around a delivery
//   retry         retry               retry-in      prints the pause in milliseconds or "none"
//   kill          SIGKILL to itself   state         prints "ready" (to wait for what came before)
//   start         lines that follow are collected; end-from-start queues each, closes its group and carries all out
// `end`, `end-from-start` and `retry` print how many microseconds they took.
//
// usage: queue_driver --direct
// Takes command lines, and "kernel-refuses CHAIN" for a rule that the tool takes and the kernel does not; applies them
// all at the end as one transaction and prints the outcome.
#include "platform/sysloglevel.h"
#include "platform_linux/ebtables/line_parser.hpp"
#include "platform_linux/ebtables/transaction.hpp"
#include "platform_linux/transaction_queue.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

long long microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

int direct()
{
    std::vector<ebtables::Command> commands;
    for (std::string line; std::getline(std::cin, line);) {
        if (line.starts_with("kernel-refuses ")) {
            ebtables::Command command;
            command.chain = line.substr(15);
            command.rule.ethertype.emplace().number = 0x0800;
            command.rule.ip.destinationPort.emplace().first = 7;
            command.rule.ip.destinationPort->last = 7;
            commands.push_back(command);
            continue;
        }
        for (ebtables::Command& command : ebtables::parseLine(line).commands)
            commands.push_back(std::move(command));
    }
    const Clock::time_point start = Clock::now();
    const ebtables::Outcome outcome = ebtables::applyTransaction({}, commands);
    std::cout << "us=" << microsecondsSince(start) << " commands=" << commands.size()
              << " refused=" << outcome.refused.size() << " processes=" << outcome.processes
              << " cannotRun=" << outcome.cannotRun << '\n';
    return 0;
}

bool handle(zol::cfg::TransactionQueue& queue, const std::string& verb, const std::string& rest)
{
    const Clock::time_point start = Clock::now();
    static std::vector<std::string> script;
    static bool collecting = false;
    if (verb == "start") {
        collecting = true;
        script.clear();
    } else if (verb == "end-from-start") {
        collecting = false;
        queue.beginDelivery();
        for (const std::string& line : script) {
            queue.addCommand(line);
            queue.process();
        }
        queue.endDelivery();
        std::cout << verb << ' ' << microsecondsSince(start) << std::endl;
    } else if (verb == "add" && collecting) {
        script.push_back(rest);
    } else if (verb == "add") {
        queue.addCommand(rest);
    } else if (verb == "process") {
        std::cout << "process " << queue.process() << std::endl;
    } else if (verb == "begin") {
        queue.beginDelivery();
    } else if (verb == "end" || verb == "retry") {
        if (verb == "end")
            queue.endDelivery();
        else
            queue.retry();
        std::cout << verb << ' ' << microsecondsSince(start) << std::endl;
    } else if (verb == "retry-in") {
        const auto pause = queue.retryIn();
        std::cout << "retry-in " << (pause ? std::to_string(pause->count()) : "none") << std::endl;
    } else if (verb == "kill") {
        raise(SIGKILL);
    } else if (verb == "state") {
        std::cout << "ready" << std::endl;
    } else {
        std::cerr << "unknown verb " << verb << '\n';
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    zol::cfg::TransactionQueueOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--direct")
            return direct();
        const std::string value = i + 1 < argc ? argv[++i] : "";
        if (option == "--tools")
            options.tools = {value + "/ebtables", value + "/ebtables-restore", value + "/ebtables-save"};
        else if (option == "--record")
            options.recordFolder = value;
        else if (option == "--time")
            options.limits.time = std::chrono::milliseconds(std::atoi(value.c_str()));
        else if (option == "--first-pause")
            options.firstPause = std::chrono::milliseconds(std::atoi(value.c_str()));
    }
    ZOL_Sysloglevel_construct2("", argv[0]);
    // As in the daemon: a stop signal has a handler and is held back but while something is waited for.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGTERM, &action, nullptr);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);

    zol::cfg::TransactionQueue queue(options);
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t blank = line.find(' ');
        if (!handle(queue, line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1)))
            return 2;
    }
    return 0;
}
