// For bench/frames.py, in its network namespace.
//
// usage: frame_driver compile < RULES         as ebtables-save writes them: compiles them and puts them into the
// kernel, as
//                                             table moatkeeper; prints the milliseconds that each of the two took
//        frame_driver send PORT BURSTS [RATE] sends bursts of 64 of the frames of standard input (hexadecimal, a line
//                                             each), at most RATE frames a second, and prints the nanoseconds that a
//                                             frame of the shortest burst took
#include "compiled/compile.hpp"
#include "compiled/describe.hpp"
#include "ebtables/table.hpp"
#include "nftables/connection.hpp"
#include "nftables/program.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
constexpr std::size_t burst = 64; // few enough that the next interrupt is rarely in it

double milliseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

void compile()
{
    const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    const ebtables::Table table = ebtables::parseSaved(text);
    const Clock::time_point begin = Clock::now();
    const compiled::Program program = compiled::compile(table).value();
    const Clock::time_point compiled = Clock::now();
    nftables::Batch batch(std::nullopt, "moatkeeper");
    nftables::addProgram(batch, program);
    const nftables::Result result = nftables::Connection().apply(batch);
    if (result.answer != nftables::Answer::Done)
        throw std::runtime_error("the kernel does not take it: " + result.reason);
    std::cout << milliseconds(compiled - begin) << ' ' << milliseconds(Clock::now() - compiled) << ' '
              << mostSteps(program, *program.find("FORWARD")) << '\n';
}

std::vector<std::vector<std::uint8_t>> readFrames()
{
    std::vector<std::vector<std::uint8_t>> frames;
    for (std::string line; std::getline(std::cin, line);) {
        std::vector<std::uint8_t>& frame = frames.emplace_back();
        for (std::size_t at = 0; at + 1 < line.size(); at += 2)
            frame.push_back(static_cast<std::uint8_t>(std::stoul(line.substr(at, 2), nullptr, 16)));
    }
    return frames;
}

// rate: 0 for as many as can be.
void send(const char* port, unsigned long bursts, unsigned long rate)
{
    const int raw = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(port));
    const int on = 1;
    if (raw < 0 || bind(raw, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(raw, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) != 0)
        throw std::runtime_error("no socket for " + std::string(port));
    // What a frame causes is done before the call returns, if it stays on this processor.
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &processors);
    sched_setaffinity(0, sizeof processors, &processors);

    std::vector<std::vector<std::uint8_t>> frames = readFrames();
    std::array<mmsghdr, burst> messages{};
    std::array<iovec, burst> parts{};
    Clock::duration shortest = Clock::duration::max();
    const auto pause = std::chrono::nanoseconds(rate == 0 ? 0 : burst * 1'000'000'000 / rate);
    Clock::time_point due = Clock::now();
    for (std::size_t next = 0; bursts > 0; --bursts) {
        for (std::size_t i = 0; i < burst; ++i, ++next) {
            std::vector<std::uint8_t>& frame = frames[next % frames.size()];
            parts[i] = {frame.data(), frame.size()};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        while (Clock::now() < due) {
        }
        due += pause;
        const Clock::time_point begin = Clock::now();
        for (std::size_t sent = 0; sent < burst;) {
            const int now = sendmmsg(raw, messages.data() + sent, static_cast<unsigned>(burst - sent), 0);
            if (now < 0)
                throw std::runtime_error("a frame is not taken");
            sent += static_cast<std::size_t>(now);
        }
        shortest = std::min(shortest, Clock::now() - begin);
    }
    close(raw);
    std::cout << std::chrono::nanoseconds(shortest).count() / static_cast<long>(burst) << '\n';
}

} // namespace

int main(int count, char** arguments)
{
    const std::string what = count > 1 ? arguments[1] : "";
    try {
        if (what == "compile")
            compile();
        else if (what == "send" && count > 3)
            send(arguments[2], std::strtoul(arguments[3], nullptr, 10),
                 count > 4 ? std::strtoul(arguments[4], nullptr, 10) : 0);
        else
            throw std::runtime_error(
                "usage: frame_driver compile < RULES, or frame_driver send PORT BURSTS [RATE] < FRAMES");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
