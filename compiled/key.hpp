// Third step: a rule as a key, the bytes that a frame must have to match it.
#pragma once

#include "compiled/item.hpp"
#include "compiled/program.hpp"

#include <cstdint>
#include <optional>
#include <vector>

namespace compiled
{

// What a key can consist of, in this order.
enum class Part : std::uint8_t {
    InPort,
    OutPort,
    Destination,
    Source,
    Type,
    VlanId,
    Encapsulated,
    Ip4Source,
    Ip4Destination,
    Ip4Protocol,
    Ip4SourcePort,
    Ip4DestinationPort,
    Ip6Source,
    Ip6Destination,
    Ip6Protocol,
    Ip6SourcePort,
    Ip6DestinationPort,
};

// Where the part is in a frame. Ports: behind a header without options, or extension headers.
Field fieldOf(Part part);
const char* nameOf(Part part);

// What frames the key is about: it says which bytes are what. All but Any fix the type.
enum class Family : std::uint8_t { Any, Ip4, Ip6, Vlan };

// Whether there is a frame that can be asked for both.
inline constexpr bool canMeet(Family one, Family other)
{
    return one == Family::Any || other == Family::Any || one == other;
}

inline constexpr std::uint16_t typeOf(Family family)
{
    return family == Family::Ip4 ? 0x0800 : family == Family::Ip6 ? 0x86dd : family == Family::Vlan ? 0x8100 : 0;
}

struct RuleKey {
    Family family = Family::Any;
    std::vector<Part> parts; // ascending
    Bytes value;             // of the parts, one beside the other
    Bytes mask;
    bool operator==(const RuleKey&) const = default;

    bool has(Part part) const;
};

// Exactly what the rule's matches say, or nothing when it is not a matter of bytes that are equal, decides nothing, or
// the kernel might not take the rule. What is decided is not in it.
//
//   -p 0x800 --ip-source 10.0.0.0/8 --ip-protocol 6 --ip-destination-port 80 -j DROP
//   ->  Ip4: Ip4Source, Ip4Protocol, Ip4DestinationPort; value 0a000000 06 0050, mask ff000000 ff ffff
std::optional<RuleKey> keyOf(const ebtables::Rule& rule, Decided decided = {});

// Whether a frame's ports, or protocol, may be elsewhere than fieldOf says: behind options of an IPv4 header, behind
// extension headers of an IPv6 one.
bool dependsOnHeaderLength(const RuleKey& key); // IPv4
bool dependsOnExtensions(const RuleKey& key);   // IPv6

// The IPv6 headers that are no protocol: another one follows. And the one that says that nothing does.
inline constexpr std::uint8_t ip6Extensions[] = {0, 43, 44, 51, 60};
inline constexpr std::uint8_t ip6NoNext = 59;

} // namespace compiled
