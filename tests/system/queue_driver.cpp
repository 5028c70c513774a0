// Drives a command queue from standard input, for tests and benchmarks.
//
// usage: queue_driver [--any-form] [--without-rights] [--tools FOLDER] [--record FOLDER]
// Each input line is a verb:
//   add LINE      addCommand          process       process        begin / end   around a delivery
//   kill          SIGKILL to itself   state         prints "ready" (to wait for what came before)
//   rights off    gives up CAP_NET_ADMIN, and takes it back with `on`; then prints after how many microseconds
//                 everything was in force
//   form NAME     the form that the rules are to have: plain or compiled; from the next delivery on
//   status        prints the form that they have, with '_' for blanks
//   memory        prints how many bytes are allocated
// `end` prints how many microseconds it took. Between them, what others do to the tables is dealt with.
#include "platform/sysloglevel.h"
#include "platform_linux/queue/transaction_queue.hpp"

#include <linux/capability.h>
#include <malloc.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

namespace
{

using Clock = std::chrono::steady_clock;

long long microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

std::optional<Clock::time_point> rightsSince; // and not everything is in force yet

void tellWhenInForce(const zol::cfg::TransactionQueue& queue)
{
    if (rightsSince && !queue.retryIn())
        std::cout << "rights " << microsecondsSince(*std::exchange(rightsSince, std::nullopt)) << std::endl;
}

// The next line of standard input; the queue's own events are served while none is there.
bool nextLine(zol::cfg::TransactionQueue& queue, std::string& buffer, std::string& line)
{
    for (;;) {
        if (const std::size_t end = buffer.find('\n'); end != std::string::npos) {
            line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return true;
        }
        std::array<pollfd, 2> wanted{{{STDIN_FILENO, POLLIN, 0}, {queue.watchedDescriptor(), POLLIN, 0}}};
        const auto pause = queue.retryIn();
        poll(wanted.data(), wanted.size(), pause ? static_cast<int>(pause->count()) : -1);
        if (wanted[1].revents != 0)
            queue.handleChange();
        queue.retry();
        tellWhenInForce(queue);
        if (wanted[0].revents == 0)
            continue;
        std::array<char, 65536> bytes;
        const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (got <= 0)
            return false;
        buffer.append(bytes.data(), static_cast<std::size_t>(got));
    }
}

void setRights(bool on)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> data{};
    syscall(SYS_capget, &header, data.data());
    constexpr std::uint32_t netAdmin = 1U << CAP_NET_ADMIN;
    data[0].effective = on ? data[0].permitted : data[0].effective & ~netAdmin;
    if (syscall(SYS_capset, &header, data.data()) != 0)
        std::cerr << "the rights stay as they are\n";
}

bool handle(zol::cfg::TransactionQueue& queue, const std::string& verb, const std::string& rest)
{
    const Clock::time_point start = Clock::now();
    if (verb == "add") {
        queue.addCommand(rest);
    } else if (verb == "process") {
        std::cout << "process " << queue.process() << std::endl;
    } else if (verb == "begin") { // what follows is one delivery
    } else if (verb == "end") {
        queue.endDelivery();
        std::cout << verb << ' ' << microsecondsSince(start) << std::endl;
    } else if (verb == "kill") {
        raise(SIGKILL);
    } else if (verb == "rights") {
        setRights(rest == "on");
        if (rest == "on")
            rightsSince = start;
    } else if (verb == "form") {
        queue.setCompiled(rest == "compiled");
    } else if (verb == "status") {
        std::string form = queue.status(0).form;
        std::ranges::replace(form, ' ', '_');
        std::cout << verb << ' ' << form << std::endl;
    } else if (verb == "memory") {
        std::cout << verb << ' ' << mallinfo2().uordblks << std::endl;
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
        if (option == "--any-form") {
            options.anyForm = true;
            continue;
        }
        if (option == "--without-rights") {
            setRights(false);
            continue;
        }
        const std::string value = i + 1 < argc ? argv[++i] : "";
        if (option == "--tools")
            options.tools = {value + "/ebtables", value + "/ebtables-save"};
        else if (option == "--record")
            options.recordFolder = value;
    }
    ZOL_Sysloglevel_construct2("", argv[0]);
    zol::cfg::TransactionQueue queue(options);
    std::string buffer;
    for (std::string line; nextLine(queue, buffer, line);) {
        const std::size_t blank = line.find(' ');
        if (!handle(queue, line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1)))
            return 2;
    }
    return 0;
}
