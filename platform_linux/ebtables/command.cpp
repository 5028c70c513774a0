#include "platform_linux/ebtables/command.hpp"

#include <arpa/inet.h>

#include <bit>
#include <string_view>

namespace ebtables
{

namespace
{

void add(std::string& text, const char* option, bool negated, const std::string& value)
{
    text += option;
    text += negated ? " ! " : " ";
    text += value;
    text += ' ';
}

// By hand where thousands are written for one commit: printf and what is made of it cost more than the rest.
constexpr std::string_view hexDigits = "0123456789abcdef";

std::string hex(unsigned number)
{
    std::string text = "0x";
    for (const unsigned shift : {12U, 8U, 4U, 0U})
        text += hexDigits[number >> shift & 0xfU];
    return text;
}

std::string mac(const std::array<std::uint8_t, 6>& a)
{
    std::string text;
    for (const std::uint8_t byte : a) {
        if (!text.empty())
            text += ':';
        text += hexDigits[byte >> 4U];
        text += hexDigits[byte & 0xfU];
    }
    return text;
}

template <std::size_t N>
std::string address(const std::array<std::uint8_t, N>& bytes)
{
    if constexpr (N == 4) {
        std::string text = std::to_string(bytes[0]);
        for (std::size_t i = 1; i < N; ++i)
            text.append(1, '.').append(std::to_string(bytes[i]));
        return text;
    }
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, bytes.data(), text, sizeof text) != nullptr ? text : "";
}

template <std::size_t N>
std::string network(const NetworkMatch<N>& match)
{
    unsigned ones = 0;
    bool ended = false;
    bool contiguous = true;
    for (const std::uint8_t byte : match.mask) {
        const auto leading = static_cast<unsigned>(std::countl_one(byte));
        contiguous = contiguous && (ended ? byte == 0 : std::popcount(byte) == static_cast<int>(leading));
        ended = ended || leading < 8;
        ones += leading;
    }
    if (contiguous && ones == 8 * N)
        return address(match.address);
    return address(match.address) + '/' + (contiguous ? std::to_string(ones) : address(match.mask));
}

std::string range(const RangeMatch& match)
{
    return match.first == match.last ? std::to_string(match.first)
                                     : std::to_string(match.first) + ':' + std::to_string(match.last);
}

std::string interface(const InterfaceMatch& match)
{
    return match.prefix ? match.name + '+' : match.name;
}

std::string macMatch(const MacMatch& match)
{
    const MacMatch exact;
    return match.mask == exact.mask ? mac(match.address) : mac(match.address) + '/' + mac(match.mask);
}

template <std::size_t N>
void addIp(std::string& text, const IpMatches<N>& ip)
{
    constexpr bool four = N == 4;
    if (ip.source)
        add(text, four ? "--ip-src" : "--ip6-src", ip.source->negated, network(*ip.source));
    if (ip.destination)
        add(text, four ? "--ip-dst" : "--ip6-dst", ip.destination->negated, network(*ip.destination));
    if (ip.protocol)
        add(text, four ? "--ip-proto" : "--ip6-proto", ip.protocol->negated, range(*ip.protocol));
    if (ip.sourcePort)
        add(text, four ? "--ip-sport" : "--ip6-sport", ip.sourcePort->negated, range(*ip.sourcePort));
    if (ip.destinationPort)
        add(text, four ? "--ip-dport" : "--ip6-dport", ip.destinationPort->negated, range(*ip.destinationPort));
}

} // namespace

bool isBuiltIn(const std::string& chain)
{
    return chain == "INPUT" || chain == "FORWARD" || chain == "OUTPUT";
}

bool isStandardTarget(const std::string& target)
{
    return target == "ACCEPT" || target == "DROP" || target == "RETURN" || target == "CONTINUE";
}

std::string toText(const Rule& rule)
{
    std::string text;
    if (rule.in)
        add(text, "-i", rule.in->negated, interface(*rule.in));
    if (rule.out)
        add(text, "-o", rule.out->negated, interface(*rule.out));
    if (rule.destination)
        add(text, "-d", rule.destination->negated, macMatch(*rule.destination));
    if (rule.source)
        add(text, "-s", rule.source->negated, macMatch(*rule.source));
    if (rule.ethertype)
        add(text, "-p", rule.ethertype->negated, rule.ethertype->lengthField ? "LENGTH" : hex(rule.ethertype->number));
    addIp(text, rule.ip);
    addIp(text, rule.ip6);
    if (rule.vlan.id)
        add(text, "--vlan-id", rule.vlan.id->negated, range(*rule.vlan.id));
    if (rule.vlan.priority)
        add(text, "--vlan-prio", rule.vlan.priority->negated, range(*rule.vlan.priority));
    if (rule.vlan.encapsulated)
        add(text, "--vlan-encap", rule.vlan.encapsulated->negated, hex(rule.vlan.encapsulated->number));
    if (rule.log) {
        add(text, "--log-level", false, std::to_string(rule.log->level));
        if (!rule.log->prefix.empty())
            add(text, "--log-prefix", false, '"' + rule.log->prefix + '"');
        text += rule.log->ip ? "--log-ip " : "";
        text += rule.log->arp ? "--log-arp " : "";
        text += rule.log->ip6 ? "--log-ip6 " : "";
    }
    return text + "-j " + rule.target;
}

std::string toText(const Command& command)
{
    switch (command.kind) {
    case CommandKind::Append:
        return "-A " + command.chain + ' ' + toText(command.rule);
    case CommandKind::Insert:
        return "-I " + command.chain + ' ' + std::to_string(command.position) + ' ' + toText(command.rule);
    case CommandKind::Delete:
        return "-D " + command.chain + ' ' + toText(command.rule);
    case CommandKind::NewChain:
        return "-N " + command.chain;
    case CommandKind::DeleteChain:
        return "-X " + command.chain;
    case CommandKind::Flush:
        return "-F " + command.chain;
    case CommandKind::Policy:
        return "-P " + command.chain + ' ' + command.policy;
    }
    return {};
}

} // namespace ebtables
