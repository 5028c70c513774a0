// Drives a command queue from standard input, for tests and benchmarks.
//
// usage: queue_driver [--tools FOLDER] [--record FOLDER]
// Each input line is a verb:
//   add LINE      addCommand          process       process        begin / end   around a delivery
//   kill          SIGKILL to itself   state         prints "ready" (to wait for what came before)
// `end` prints how many microseconds it took.
//
// usage: queue_driver [--tools FOLDER] --direct
// Takes command lines, and "kernel-refuses CHAIN" for a rule that the tool takes and the kernel does not; applies them
// all at the end as one transaction and prints the outcome.
#include "ebtables/line_parser.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/queue/transaction.hpp"
#include "platform_linux/queue/transaction_queue.hpp"

#include <chrono>
#include <csignal>
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

int direct(const ebtables::ToolPaths& tools)
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
    const ebtables::Outcome outcome = ebtables::applyTransaction(tools, commands, {});
    std::cout << "us=" << microsecondsSince(start) << " commands=" << commands.size()
              << " refused=" << outcome.refused.size() << " processes=" << outcome.processes
              << " cannotRun=" << outcome.cannotRun << '\n';
    return 0;
}

bool handle(zol::cfg::TransactionQueue& queue, const std::string& verb, const std::string& rest)
{
    const Clock::time_point start = Clock::now();
    if (verb == "add") {
        queue.addCommand(rest);
    } else if (verb == "process") {
        std::cout << "process " << queue.process() << std::endl;
    } else if (verb == "begin") {
    } else if (verb == "end") {
        queue.endDelivery();
        std::cout << verb << ' ' << microsecondsSince(start) << std::endl;
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
            return direct(options.tools);
        if (option == "--any-form") {
            options.anyForm = true;
            continue;
        }
        const std::string value = i + 1 < argc ? argv[++i] : "";
        if (option == "--tools")
            options.tools = {value + "/ebtables", value + "/ebtables-restore", value + "/ebtables-save"};
        else if (option == "--record")
            options.recordFolder = value;
    }
    ZOL_Sysloglevel_construct2("", argv[0]);
    zol::cfg::TransactionQueue queue(options);
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t blank = line.find(' ');
        if (!handle(queue, line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1)))
            return 2;
    }
    return 0;
}
