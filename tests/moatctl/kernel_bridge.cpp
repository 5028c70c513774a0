#include "tests/moatctl/kernel_bridge.hpp"

#include "tests/moatctl/kernel_lab.hpp"
#include "tests/moatctl/random_configuration.hpp"

#include <chrono>
#include <fstream>
#include <iterator>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace test
{

namespace
{

using namespace moatctl;

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

void run(const std::string& path, const std::string& words)
{
    std::istringstream stream(words);
    runOrFail(path, {std::istream_iterator<std::string>(stream), {}});
}

void ip(const std::string& words)
{
    run("/usr/sbin/ip", words);
}

// The bridge takes frames of a port some time after it went up.
void waitForPorts()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::size_t ready = 0;
    while (ready != ports().size() && std::chrono::steady_clock::now() < deadline) {
        const std::string links = runOrFail("/usr/sbin/bridge", {"link", "show"});
        ready = 0;
        for (std::size_t at = 0; (at = links.find("state forwarding", at)) != std::string::npos; ++at)
            ++ready;
    }
    ASSERT_EQ(ready, ports().size());
}

} // namespace

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

void KernelBridge::SetUp()
{
    if (!enterNamespace())
        GTEST_SKIP() << "no network namespace with bridge tables here";
    for (const char* which : {"all", "default"})
        std::ofstream("/proc/sys/net/ipv6/conf/" + std::string(which) + "/disable_ipv6") << 1;
    // Packets need not be right in all their parts.
    for (const char* which : {"iptables", "ip6tables", "arptables"})
        std::ofstream("/proc/sys/net/bridge/bridge-nf-call-" + std::string(which)) << 0;
    ip("link add br0 address 02:00:00:00:00:04 type bridge mcast_snooping 0 stp_state 0 forward_delay 0");
    ip("link set br0 up");
    for (std::size_t i = 0; i < ports().size(); ++i) {
        const std::string& port = ports()[i];
        ip("link add " + port + " type veth peer name out-" + port);
        ip("link set " + port + " master br0");
        ip("link set " + port + " up");
        ip("link set out-" + port + " up");
        run("/usr/sbin/bridge", "link set dev " + port + " learning off");
        run("/usr/sbin/bridge", "fdb add 02:00:00:00:00:0" + std::to_string(i + 1) + " dev " + port + " master static");
    }
    waitForPorts();
    // Frames of ours only. Not all of them pass the bridge's own prerouting.
    const std::string ours = "ether saddr & ff:ff:ff:ff:ff:f8 == 02:00:00:00:00:00 counter\n }\n";
    runOrFail("/usr/sbin/nft", {"-f", "-"},
              "table netdev probe {\n chain a { type filter hook ingress devices = { eth0, eth1, wlan0 } "
              "priority 0; " +
                  ours +
                  "}\ntable bridge probe {\n"
                  " chain f { type filter hook forward priority 100; " +
                  ours + " chain i { type filter hook input priority 100; " + ours + "}\n");
    m_socket = socket(AF_PACKET, SOCK_RAW, 0);
    ASSERT_GE(m_socket, 0);
}

void KernelBridge::TearDown()
{
    if (m_socket >= 0)
        close(m_socket);
}

void KernelBridge::send(const std::string& port, const Bytes& bytes) const
{
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex(("out-" + port).c_str()));
    ASSERT_EQ(sendto(m_socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(bytes.size()));
}

Seen KernelBridge::seen()
{
    const std::string probe = runOrFail("/usr/sbin/nft", {"list", "table", "netdev", "probe"}) +
                              runOrFail("/usr/sbin/nft", {"list", "table", "bridge", "probe"});
    Seen result;
    std::uint64_t* const places[] = {&result.arrived, &result.forwarded, &result.delivered};
    std::size_t at = 0;
    for (std::uint64_t* place : places) {
        at = probe.find("packets ", at) + 8;
        *place = std::stoull(probe.substr(at));
    }
    return result;
}

} // namespace test
