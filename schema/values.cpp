#include "schema/values.hpp"

#include <algorithm>

namespace schema
{

namespace
{

bool isNumber(std::string_view text)
{
    if (text.starts_with('-'))
        text.remove_prefix(1);
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

// A blank, a quote or a `;` would change the line around the value.
bool isSingleWord(std::string_view text)
{
    if (text.starts_with('!'))
        text.remove_prefix(text.starts_with("! ") ? 2 : 1);
    return !text.empty() && std::ranges::all_of(text, [](char c) {
        return c > ' ' && c <= '~' && c != '"' && c != '\'' && c != '`' && c != ';';
    });
}

bool looksLikeOption(std::string_view text)
{
    if (text.starts_with("! "))
        text.remove_prefix(2);
    return text.starts_with('-') && !isNumber(text);
}

} // namespace

bool isText(ValueKind kind)
{
    switch (kind) {
    case ValueKind::Id:
    case ValueKind::Switch:
    case ValueKind::RulePriority:
    case ValueKind::FilterPriority:
    case ValueKind::VlanId:
    case ValueKind::Port:
    case ValueKind::FilterId:
        return false;
    case ValueKind::Interface:
    case ValueKind::Mac:
    case ValueKind::Ethertype:
    case ValueKind::Network:
    case ValueKind::Protocol:
    case ValueKind::Target:
    case ValueKind::Criteria:
    case ValueKind::Mode:
    case ValueKind::FilterMatch:
        return true;
    }
    return false;
}

std::string_view expectedValue(ValueKind kind)
{
    switch (kind) {
    case ValueKind::Id:
        return "a number from 1 to 2147483647";
    case ValueKind::Switch:
        return "0 or 1";
    case ValueKind::RulePriority:
        return "a number from -2147483648 to 2147483647 except 0";
    case ValueKind::FilterPriority:
        return "a number from 1 to 2147483647";
    case ValueKind::Interface:
        return "an interface name of at most 15 characters";
    case ValueKind::Mac:
        return "a MAC address such as 00:11:22:33:44:55, or ADDRESS/MASK";
    case ValueKind::VlanId:
        return "a VLAN id from 0 to 4094, or -1 for any frame";
    case ValueKind::Ethertype:
        return "IPv4, IPv6, ARP, another protocol name such as LLDP, or a number such as 0x88cc";
    case ValueKind::Network:
        return "an IPv4 or IPv6 address, or ADDRESS/PREFIX";
    case ValueKind::Protocol:
        return "TCP or UDP";
    case ValueKind::Port:
        return "a port from 1 to 65535, or 0 for any";
    case ValueKind::Target:
        return "ACCEPT or DROP";
    case ValueKind::Criteria:
        return "mac, ipv4, ipv6 or vlan";
    case ValueKind::Mode:
        return "blacklist or whitelist";
    case ValueKind::FilterId:
        return "the Id of a filter";
    case ValueKind::FilterMatch:
        return "a MAC address, an IP address or network, or a VLAN id, as the filter matches";
    }
    return "";
}

std::size_t longestText(ValueKind kind)
{
    constexpr std::size_t negation = 2; // "! "
    constexpr std::size_t mac = 17;
    constexpr std::size_t ipv6 = 45; // with the last four bytes written as IPv4
    switch (kind) {
    case ValueKind::Interface:
        return negation + 15;
    case ValueKind::Mac:
        return negation + mac + 1 + mac;
    case ValueKind::Network:
    case ValueKind::FilterMatch:
        return negation + ipv6 + 1 + ipv6;
    case ValueKind::Ethertype:
    case ValueKind::Protocol:
    case ValueKind::Target:
    case ValueKind::Criteria:
    case ValueKind::Mode:
        return 32; // names, of which the longest that means something has 12
    default:
        return 0;
    }
}

std::optional<std::string> expectedOperand(ValueKind kind, std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    if (text.size() > longestText(kind))
        return "a text of at most " + std::to_string(longestText(kind)) + " characters";
    if (!isSingleWord(text))
        return std::string(expectedValue(kind)) + ", as a single word";
    if (looksLikeOption(text))
        return std::string(expectedValue(kind)) + ", not an option";
    return std::nullopt;
}

} // namespace schema
