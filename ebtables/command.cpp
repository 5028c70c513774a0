#include "ebtables/command.hpp"

#include <arpa/inet.h>

#include <bit>
#include <charconv>
#include <string_view>

namespace ebtables
{

namespace
{

// All of these append to the one text: thousands of rules are written for one commit.

constexpr std::string_view hexDigits = "0123456789abcdef";

void addOption(std::string& text, std::string_view option, bool negated)
{
    text += option;
    text += negated ? " ! " : " ";
}

void addNumber(std::string& text, unsigned number)
{
    std::array<char, 12> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    text.append(digits.data(), end);
}

void addHex(std::string& text, unsigned number)
{
    text += "0x";
    for (const unsigned shift : {12U, 8U, 4U, 0U})
        text += hexDigits[number >> shift & 0xfU];
}

void addMac(std::string& text, const std::array<std::uint8_t, 6>& mac)
{
    for (std::size_t i = 0; i < mac.size(); ++i) {
        if (i > 0)
            text += ':';
        text += hexDigits[mac[i] >> 4U];
        text += hexDigits[mac[i] & 0xfU];
    }
}

void addAddress(std::string& text, const std::array<std::uint8_t, 4>& address)
{
    for (std::size_t i = 0; i < address.size(); ++i) {
        if (i > 0)
            text += '.';
        addNumber(text, address[i]);
    }
}

void addAddress(std::string& text, const std::array<std::uint8_t, 16>& address)
{
    std::array<char, INET6_ADDRSTRLEN> written;
    if (inet_ntop(AF_INET6, address.data(), written.data(), written.size()) != nullptr)
        text += written.data();
}

// How many ones the mask begins with when there are only zeros behind them.
template <std::size_t N>
std::optional<unsigned> prefixLength(const std::array<std::uint8_t, N>& mask)
{
    unsigned ones = 0;
    bool ended = false;
    for (const std::uint8_t byte : mask) {
        const int leading = std::countl_one(byte);
        if (ended ? byte != 0 : std::popcount(byte) != leading)
            return std::nullopt;
        ended = ended || leading < 8;
        ones += static_cast<unsigned>(leading);
    }
    return ones;
}

void addInterface(std::string& text, std::string_view option, const std::optional<InterfaceMatch>& match)
{
    if (!match)
        return;
    addOption(text, option, match->negated);
    text += match->name;
    text += match->prefix ? "+ " : " ";
}

void addMacMatch(std::string& text, std::string_view option, const std::optional<MacMatch>& match)
{
    if (!match)
        return;
    addOption(text, option, match->negated);
    addMac(text, match->address);
    if (match->mask != MacMatch().mask) {
        text += '/';
        addMac(text, match->mask);
    }
    text += ' ';
}

void addEthertype(std::string& text, std::string_view option, const std::optional<EthertypeMatch>& match)
{
    if (!match)
        return;
    addOption(text, option, match->negated);
    if (match->lengthField)
        text += "LENGTH";
    else
        addHex(text, match->number);
    text += ' ';
}

template <std::size_t N>
void addNetwork(std::string& text, std::string_view option, const std::optional<NetworkMatch<N>>& match)
{
    if (!match)
        return;
    addOption(text, option, match->negated);
    addAddress(text, match->address);
    const std::optional<unsigned> ones = prefixLength(match->mask);
    if (ones != 8 * N) {
        text += '/';
        if (ones)
            addNumber(text, *ones);
        else
            addAddress(text, match->mask);
    }
    text += ' ';
}

void addRange(std::string& text, std::string_view option, const std::optional<RangeMatch>& match)
{
    if (!match)
        return;
    addOption(text, option, match->negated);
    addNumber(text, match->first);
    if (match->first != match->last) {
        text += ':';
        addNumber(text, match->last);
    }
    text += ' ';
}

template <std::size_t N>
void addIp(std::string& text, const IpMatches<N>& ip)
{
    constexpr bool four = N == 4;
    addNetwork(text, four ? "--ip-src" : "--ip6-src", ip.source);
    addNetwork(text, four ? "--ip-dst" : "--ip6-dst", ip.destination);
    addRange(text, four ? "--ip-proto" : "--ip6-proto", ip.protocol);
    addRange(text, four ? "--ip-sport" : "--ip6-sport", ip.sourcePort);
    addRange(text, four ? "--ip-dport" : "--ip6-dport", ip.destinationPort);
}

void addLog(std::string& text, const LogOptions& log)
{
    text += "--log-level ";
    addNumber(text, static_cast<unsigned>(log.level));
    text += ' ';
    if (!log.prefix.empty())
        text.append("--log-prefix \"").append(log.prefix).append("\" ");
    text += log.ip ? "--log-ip " : "";
    text += log.arp ? "--log-arp " : "";
    text += log.ip6 ? "--log-ip6 " : "";
}

} // namespace

bool isBuiltIn(std::string_view chain)
{
    return chain == "INPUT" || chain == "FORWARD" || chain == "OUTPUT";
}

bool isStandardTarget(std::string_view target)
{
    return target == "ACCEPT" || target == "DROP" || target == "RETURN" || target == "CONTINUE";
}

void appendText(std::string& text, const Rule& rule)
{
    addInterface(text, "-i", rule.in);
    addInterface(text, "-o", rule.out);
    addMacMatch(text, "-d", rule.destination);
    addMacMatch(text, "-s", rule.source);
    addEthertype(text, "-p", rule.ethertype);
    addIp(text, rule.ip);
    addIp(text, rule.ip6);
    addRange(text, "--vlan-id", rule.vlan.id);
    addRange(text, "--vlan-prio", rule.vlan.priority);
    addEthertype(text, "--vlan-encap", rule.vlan.encapsulated);
    if (rule.log)
        addLog(text, *rule.log);
    text += "-j ";
    text += rule.target;
}

void appendText(std::string& text, const Command& command)
{
    const auto add = [&](std::string_view option) {
        text += option;
        text += command.chain;
    };
    switch (command.kind) {
    case CommandKind::Append:
        add("-A ");
        appendText(text += ' ', command.rule);
        break;
    case CommandKind::Insert:
        add("-I ");
        addNumber(text += ' ', command.position);
        appendText(text += ' ', command.rule);
        break;
    case CommandKind::Delete:
        add("-D ");
        appendText(text += ' ', command.rule);
        break;
    case CommandKind::NewChain:
        add("-N ");
        break;
    case CommandKind::DeleteChain:
        add("-X ");
        break;
    case CommandKind::Flush:
        add("-F ");
        break;
    case CommandKind::Policy:
        add("-P ");
        text.append(1, ' ').append(command.policy);
        break;
    }
}

std::string toText(const Rule& rule)
{
    std::string text;
    appendText(text, rule);
    return text;
}

std::string toText(const Command& command)
{
    std::string text;
    appendText(text, command);
    return text;
}

} // namespace ebtables
