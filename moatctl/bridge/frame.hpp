// A frame as the bridge's chains see it, and whether a rule matches it: what the kernel does, as a function.
//
// With VLAN filtering on, the bridge has already applied the port's VLAN settings when the chains see the frame: the
// tag of a `Frame` is the one of that moment.
#pragma once

#include "ebtables/command.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace moatctl
{

using MacAddress = std::array<std::uint8_t, 6>;
using Ip4Address = std::array<std::uint8_t, 4>;
using Ip6Address = std::array<std::uint8_t, 16>;

namespace ethertype
{
inline constexpr std::uint16_t firstNumber = 0x600; // what is below is the length of an IEEE 802.3 frame
inline constexpr std::uint16_t ip4 = 0x800;
inline constexpr std::uint16_t arp = 0x806;
inline constexpr std::uint16_t vlan = 0x8100;
inline constexpr std::uint16_t ip6 = 0x86dd;
inline constexpr std::uint16_t eapol = 0x888e;
} // namespace ethertype

namespace ipProtocol
{
inline constexpr std::uint8_t tcp = 6;
inline constexpr std::uint8_t udp = 17;
inline constexpr std::uint8_t ip6Fragment = 44;
inline constexpr std::uint8_t icmp6 = 58;
inline constexpr std::uint8_t ip6NoNext = 59;
} // namespace ipProtocol

struct VlanTag {
    std::uint16_t id = 0;
    std::uint8_t priority = 0;
};

// What is not set is not known; only the tag's absence says that there is none.
struct Frame {
    std::string in;  // the port that it came in by
    std::string out; // the port that it is to leave by; empty: the frame is for the device itself
    std::optional<MacAddress> source, destination;
    std::optional<VlanTag> vlan;
    std::optional<std::uint16_t> type; // the ethertype, behind the tag if there is one; below 0x600 a length
    std::optional<Ip4Address> ip4Source, ip4Destination;
    std::optional<Ip6Address> ip6Source, ip6Destination;
    std::optional<std::uint8_t> protocol; // IPv6: behind the extension headers
    std::optional<std::uint16_t> sourcePort, destinationPort;
    bool laterFragment = false; // any fragment of an IP packet but the first: it has no ports
};

enum class Answer { Yes, No, Unknown };

struct MatchResult {
    Answer answer = Answer::Yes;
    std::string_view option;  // No: the first of the rule's options that does not hold; Unknown: that cannot be decided
    std::string_view missing; // Unknown: what would have to be known about the frame, in words
};

// Whether the rule's matches all hold. Unknown only where what is not known decides.
MatchResult match(const ebtables::Rule& rule, const Frame& frame);

// As people write them.
std::string toText(const MacAddress& address);
std::string toText(const Ip4Address& address);
std::string toText(const Ip6Address& address);

// Whether the interface match holds for the port of this name.
bool matchesPort(const ebtables::InterfaceMatch& match, std::string_view port);

} // namespace moatctl
