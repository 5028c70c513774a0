// What moatctl explain says, against what the kernel does: for every frame, which rules match and what becomes of it.
#include "ebtables/table.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "subprocess/run.hpp"
#include "tests/moatctl/kernel_lab.hpp"
#include "tests/moatctl/random_configuration.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using namespace moatctl;
using Bytes = std::vector<std::uint8_t>;

constexpr MacAddress bridgeAddress{2, 0, 0, 0, 0, 4};

// How often each rule matched, by chain and position; and how many frames came in and got through.
struct Counts {
    std::map<std::pair<std::string, std::size_t>, std::uint64_t> rules;
    std::uint64_t arrived = 0, forwarded = 0, delivered = 0;
    bool operator==(const Counts&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Counts& counts)
{
    for (const auto& [place, count] : counts.rules) {
        if (count != 0)
            out << place.first << " rule " << place.second + 1 << ": " << count << ", ";
    }
    return out << "forwarded " << counts.forwarded << ", delivered " << counts.delivered;
}

void put16(Bytes& bytes, unsigned value)
{
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    bytes.push_back(static_cast<std::uint8_t>(value));
}

template <typename Array>
void put(Bytes& bytes, const Array& array)
{
    bytes.insert(bytes.end(), array.begin(), array.end());
}

// With headers inside IPv6 that have to be skipped.
Bytes packetOf(const Frame& frame, bool optionsHeader)
{
    Bytes bytes;
    const std::uint8_t protocol = frame.protocol.value_or(0);
    if (frame.ip4Source) {
        bytes = {0x45, 0, 0, 60, 0, 1, 0, static_cast<std::uint8_t>(frame.laterFragment ? 100 : 0), 64, protocol, 0, 0};
        put(bytes, *frame.ip4Source);
        put(bytes, *frame.ip4Destination);
    } else {
        const std::uint8_t inner = frame.laterFragment ? ipProtocol::ip6Fragment : protocol;
        bytes = {0x60, 0, 0, 0, 0, 40, static_cast<std::uint8_t>(optionsHeader ? 60 : inner), 64};
        put(bytes, *frame.ip6Source);
        put(bytes, *frame.ip6Destination);
        if (optionsHeader)
            put(bytes, Bytes{inner, 0, 1, 4, 0, 0, 0, 0});
        if (frame.laterFragment)
            put(bytes, Bytes{protocol, 0, 1, 0, 0, 0, 0, 1});
    }
    put16(bytes, frame.sourcePort.value_or(0));
    put16(bytes, frame.destinationPort.value_or(0));
    return bytes;
}

Bytes bytesOf(const Frame& frame, bool optionsHeader)
{
    Bytes bytes;
    put(bytes, *frame.destination);
    put(bytes, *frame.source);
    if (frame.vlan) {
        put16(bytes, ethertype::vlan);
        put16(bytes, (unsigned{frame.vlan->priority} << 13) | frame.vlan->id);
    }
    put16(bytes, *frame.type);
    const std::size_t header = bytes.size();
    if (frame.ip4Source || frame.ip6Source)
        put(bytes, packetOf(frame, optionsHeader));
    else
        put(bytes, Bytes{0x42, 0x42, 0x03});
    bytes.resize(header + 100);
    if (*frame.type < ethertype::firstNumber)
        bytes.resize(header + *frame.type);
    return bytes;
}

class ExplainAgreesWithTheKernel : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!test::enterNamespace())
            GTEST_SKIP() << "no network namespace with bridge tables here";
        for (const char* which : {"all", "default"})
            std::ofstream("/proc/sys/net/ipv6/conf/" + std::string(which) + "/disable_ipv6") << 1;
        // Packets need not be right in all their parts.
        for (const char* which : {"iptables", "ip6tables", "arptables"})
            std::ofstream("/proc/sys/net/bridge/bridge-nf-call-" + std::string(which)) << 0;
        ip("link add br0 address 02:00:00:00:00:04 type bridge mcast_snooping 0 stp_state 0 forward_delay 0");
        ip("link set br0 up");
        for (std::size_t i = 0; i < test::ports().size(); ++i) {
            const std::string& port = test::ports()[i];
            ip("link add " + port + " type veth peer name out-" + port);
            ip("link set " + port + " master br0");
            ip("link set " + port + " up");
            ip("link set out-" + port + " up");
            run("/usr/sbin/bridge", "link set dev " + port + " learning off");
            run("/usr/sbin/bridge",
                "fdb add 02:00:00:00:00:0" + std::to_string(i + 1) + " dev " + port + " master static");
        }
        waitForPorts();
        // Frames of ours only. Not all of them pass the bridge's own prerouting.
        const std::string ours = "ether saddr & ff:ff:ff:ff:ff:f8 == 02:00:00:00:00:00 counter\n }\n";
        test::runOrFail("/usr/sbin/nft", {"-f", "-"},
                        "table netdev probe {\n chain a { type filter hook ingress devices = { eth0, eth1, wlan0 } "
                        "priority 0; " +
                            ours +
                            "}\ntable bridge probe {\n"
                            " chain f { type filter hook forward priority 100; " +
                            ours + " chain i { type filter hook input priority 100; " + ours + "}\n");
        m_socket = socket(AF_PACKET, SOCK_RAW, 0);
        ASSERT_GE(m_socket, 0);
    }

    void TearDown() override
    {
        if (m_socket >= 0)
            close(m_socket);
    }

    static void run(const std::string& path, const std::string& words)
    {
        std::istringstream stream(words);
        test::runOrFail(path, {std::istream_iterator<std::string>(stream), {}});
    }
    // The bridge takes frames of a port some time after it went up.
    static void waitForPorts()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::size_t ready = 0;
        while (ready != test::ports().size() && std::chrono::steady_clock::now() < deadline) {
            const std::string links = test::runOrFail("/usr/sbin/bridge", {"link", "show"});
            ready = 0;
            for (std::size_t at = 0; (at = links.find("state forwarding", at)) != std::string::npos; ++at)
                ++ready;
        }
        ASSERT_EQ(ready, test::ports().size());
    }

    static void ip(const std::string& words) { run("/usr/sbin/ip", words); }

    void send(const std::string& port, const Bytes& bytes) const
    {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(if_nametoindex(("out-" + port).c_str()));
        ASSERT_EQ(sendto(m_socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(bytes.size()));
    }

    static Counts counts()
    {
        Counts result;
        const std::string probe = test::runOrFail("/usr/sbin/nft", {"list", "table", "netdev", "probe"}) +
                                  test::runOrFail("/usr/sbin/nft", {"list", "table", "bridge", "probe"});
        std::uint64_t* const places[] = {&result.arrived, &result.forwarded, &result.delivered};
        std::size_t at = 0;
        for (std::uint64_t* place : places) {
            at = probe.find("packets ", at) + 8;
            *place = std::stoull(probe.substr(at));
        }
        const ebtables::Table table = ebtables::parseSaved(test::runOrFail("/usr/sbin/ebtables-save", {"-c"}));
        for (const ebtables::Chain& chain : table.chains) {
            for (std::size_t i = 0; i < chain.rules.size(); ++i)
                result.rules[{chain.name, i}] = chain.rules[i].counters.value().packets;
        }
        return result;
    }

    // The counters when this many frames have come in and the last one is through.
    static Counts countsAfter(std::uint64_t arrived)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (counts().arrived != arrived && std::chrono::steady_clock::now() < deadline) {
        }
        return counts(); // once more: it may have come in between two of the counters
    }

    // The ways that the bridge sends a frame to this destination.
    static std::vector<std::string> waysOf(const Frame& frame)
    {
        if (frame.destination == bridgeAddress || frame.destination == MacAddress{0x01, 0x80, 0xc2, 0, 0, 3})
            return {""};
        if (((*frame.destination)[0] & 1U) == 0)
            return {test::ports()[(*frame.destination)[5] - 1U]};
        std::vector<std::string> ways{""};
        for (const std::string& port : test::ports()) {
            if (port != frame.in)
                ways.push_back(port);
        }
        return ways;
    }

    static void expectWalk(Counts& expected, const ebtables::Table& table, Frame frame, const std::string& out)
    {
        frame.out = out;
        const Walk walked = walk(table, frame);
        for (const Step& step : walked.steps) {
            if (step.rule != nullptr && step.result.answer == Answer::Yes)
                ++expected.rules[{step.chain->name, step.position}];
        }
        ASSERT_NE(walked.fate, Fate::Unknown);
        if (walked.fate == Fate::Accept)
            ++(out.empty() ? expected.delivered : expected.forwarded);
    }

    int m_socket = -1;
};

// A destination of every kind that the bridge treats differently.
void turnDestination(test::Random& random, Frame& frame)
{
    static const std::vector<MacAddress> groups{{0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
                                                {0x33, 0x33, 0, 0, 0, 1},
                                                {0x01, 0, 0x5e, 0, 0, 1},
                                                {0x01, 0x80, 0xc2, 0, 0, 0},
                                                {0x01, 0x80, 0xc2, 0, 0, 3}};
    if (random.oneIn(3)) {
        frame.destination = random.pick(groups);
        return;
    }
    // The bridge sends no frame back out of its port.
    while ((*frame.destination)[5] <= test::ports().size() && test::ports()[(*frame.destination)[5] - 1U] == frame.in)
        (*frame.destination)[5] = static_cast<std::uint8_t>(random.number(1, 4));
}

TEST_F(ExplainAgreesWithTheKernel, OverRandomConfigurationsAndFrames)
{
    constexpr unsigned configurations = 40;
    constexpr int framesEach = 12;
    Counts total;
    for (unsigned seed = 1; seed <= configurations; ++seed) {
        test::Random random(seed);
        const Configuration configuration = test::randomConfiguration(random, 0);
        const Expected lines = expectedOf(configuration);
        const Applied applied = apply(lines);
        ASSERT_EQ(test::restore(lines), "") << "seed " << seed;
        Counts before = counts();
        for (int i = 0; i < framesEach; ++i) {
            Frame frame = test::randomFrame(random);
            turnDestination(random, frame);
            Counts expected = before;
            ++expected.arrived;
            for (const std::string& out : waysOf(frame))
                expectWalk(expected, applied.table, frame, out);
            const bool optionsHeader = random.oneIn(4) && frame.protocol != ipProtocol::ip6NoNext;
            send(frame.in, bytesOf(frame, optionsHeader));
            const Counts after = countsAfter(expected.arrived);
            ASSERT_EQ(after, expected) << "seed " << seed << ", " << toText(frame) << "; before: " << before;
            before = after;
        }
        total.arrived = before.arrived;
        total.forwarded = before.forwarded;
        total.delivered = before.delivered;
    }
    // All fates came up.
    EXPECT_GE(total.arrived, 300U);
    EXPECT_GT(total.forwarded, 50U);
    EXPECT_GT(total.delivered, 50U);
    std::cout << total.arrived << " frames, " << total << '\n';
}

} // namespace
