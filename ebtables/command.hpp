// A parsed `ebtables` command: what moatkeeper's command lines and the kernel's rules say, as plain values.
//
// Value types: copied freely, compared by what they mean. Spelling is gone: `-p IPv4`, `-p ip4` and `-p 0x800`
// are equal, and so are `--ip-source 10.0.0.7/24` and `--ip-source 10.0.0.0/24`.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ebtables
{

// The longest names that the tool takes, in characters.
inline constexpr std::size_t maxInterfaceName = 15;
inline constexpr std::size_t maxChainName = 255;
inline constexpr std::size_t maxJumpTarget = 28; // a longer chain can be made, filled and deleted, but not jumped to
inline constexpr std::size_t maxLogPrefix = 29;

// -i, -o: a bridge port. `eth+` has name "eth" and prefix set: any port whose name begins so. A lone `+`, which
// matches every port, is no match at all in the kernel and is parsed as none.
struct InterfaceMatch {
    std::string name;
    bool prefix = false;
    bool negated = false;
    bool operator==(const InterfaceMatch&) const = default;
};

// -s, -d: the frame's address and the mask are compared where the mask has ones; address is held masked.
struct MacMatch {
    std::array<std::uint8_t, 6> address{};
    std::array<std::uint8_t, 6> mask{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    bool negated = false;
    bool operator==(const MacMatch&) const = default;
};

// -p: the number in the frame's type field, or (lengthField) any frame whose field is a length (below 0x600).
struct EthertypeMatch {
    std::uint16_t number = 0;
    bool lengthField = false;
    bool negated = false;
    bool operator==(const EthertypeMatch&) const = default;
};

// --ip-source and the like: N is 4 or 16 bytes in network order; address is held masked.
template <std::size_t N>
struct NetworkMatch {
    std::array<std::uint8_t, N> address{};
    std::array<std::uint8_t, N> mask{};
    bool negated = false;
    bool operator==(const NetworkMatch&) const = default;
};

// A number or a range, both ends included: IP protocols, ports, VLAN ids, VLAN priorities.
struct RangeMatch {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
    bool negated = false;
    bool operator==(const RangeMatch&) const = default;
};

// The --ip-* (N = 4) or --ip6-* (N = 16) options. All of them look at frames of that ethertype only.
template <std::size_t N>
struct IpMatches {
    std::optional<NetworkMatch<N>> source;
    std::optional<NetworkMatch<N>> destination;
    std::optional<RangeMatch> protocol; // one number
    std::optional<RangeMatch> sourcePort;
    std::optional<RangeMatch> destinationPort;
    bool any() const { return source || destination || protocol || sourcePort || destinationPort; }
    bool operator==(const IpMatches&) const = default;
};

// The --vlan-* options: the tag's id (0 to 4094), its priority (0 to 7), the ethertype behind the tag.
struct VlanMatches {
    std::optional<RangeMatch> id;       // one number
    std::optional<RangeMatch> priority; // one number
    std::optional<EthertypeMatch> encapsulated;
    bool any() const { return id || priority || encapsulated; }
    bool operator==(const VlanMatches&) const = default;
};

// The --log* options: a watcher; it decides nothing.
struct LogOptions {
    std::string prefix;
    int level = 5; // syslog's: 0 emergency to 7 debug; the tool's default is notice
    bool ip = false;
    bool arp = false;
    bool ip6 = false;
    bool operator==(const LogOptions&) const = default;
};

// A rule: every match that is set must hold for the target to count.
struct Rule {
    std::optional<InterfaceMatch> in;
    std::optional<InterfaceMatch> out;
    std::optional<MacMatch> source;
    std::optional<MacMatch> destination;
    std::optional<EthertypeMatch> ethertype;
    IpMatches<4> ip;
    IpMatches<16> ip6;
    VlanMatches vlan;
    std::optional<LogOptions> log;
    std::string target = "CONTINUE"; // ACCEPT, DROP, RETURN, CONTINUE or a user chain
    bool operator==(const Rule&) const = default;
};

enum class CommandKind : std::uint8_t {
    Append,      // -A chain rule
    Insert,      // -I chain [position] rule
    Delete,      // -D chain rule
    NewChain,    // -N chain
    DeleteChain, // -X chain: with its rules
    Flush,       // -F chain
    Policy,      // -P chain target
};

struct Command {
    CommandKind kind = CommandKind::Append;
    std::string chain;
    unsigned position = 1; // Insert: counts from 1
    std::string policy;    // Policy: ACCEPT, DROP or RETURN
    Rule rule;             // Append, Insert, Delete
    bool operator==(const Command&) const = default;
};

// INPUT, FORWARD and OUTPUT: the chains that frames enter without a jump.
bool isBuiltIn(std::string_view chain);

// ACCEPT, DROP, RETURN and CONTINUE: the targets that are no chains.
bool isStandardTarget(std::string_view target);

// The rule's options as the tool takes them, without chain: "-i eth0 -p 0x800 --ip-source 10.0.0.0/24 -j DROP".
// Numbers instead of names, so that the tool need not look them up. parseRule gives back an equal rule.
std::string toText(const Rule& rule);
void appendText(std::string& text, const Rule& rule);

// The command as a line of ebtables-restore, without a newline: "-A FORWARD -i eth0 -j ACCEPT".
std::string toText(const Command& command);
void appendText(std::string& text, const Command& command);

} // namespace ebtables
