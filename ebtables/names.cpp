#include "ebtables/names.hpp"

#include <algorithm>
#include <array>
#include <span>

namespace ebtables
{

namespace
{

struct Name {
    std::string_view name;
    std::uint16_t number;
};

constexpr Name ethertypes[] = {
    {"IPv4", 0x0800},      {"ip", 0x0800},         {"ip4", 0x0800},      {"X25", 0x0805},         {"ARP", 0x0806},
    {"ether-arp", 0x0806}, {"FR_ARP", 0x0808},     {"BPQ", 0x08FF},      {"TRILL", 0x22F3},       {"L2-IS-IS", 0x22F4},
    {"TEB", 0x6558},       {"RAW_FR", 0x6559},     {"RARP", 0x8035},     {"ATALK", 0x809B},       {"AARP", 0x80F3},
    {"802_1Q", 0x8100},    {"8021q", 0x8100},      {"1q", 0x8100},       {"802.1q", 0x8100},      {"dot1q", 0x8100},
    {"IPX", 0x8137},       {"NetBEUI", 0x8191},    {"IPv6", 0x86DD},     {"ip6", 0x86DD},         {"PPP", 0x880B},
    {"MPLS", 0x8847},      {"MPLS_MULTI", 0x8848}, {"ATMMPOA", 0x884C},  {"PPP_DISC", 0x8863},    {"PPP_SES", 0x8864},
    {"ATMFATE", 0x8884},   {"EAPOL", 0x888E},      {"S-TAG", 0x88A8},    {"EAP_PREAUTH", 0x88C7}, {"LLDP", 0x88CC},
    {"MACSEC", 0x88E5},    {"PBB", 0x88E7},        {"macinmac", 0x88E7}, {"MVRP", 0x88F5},        {"PTP", 0x88F7},
    {"FCOE", 0x8906},      {"FIP", 0x8914},        {"ROCE", 0x8915},     {"LoWPAN", 0xA0ED},
};

constexpr Name ipProtocols[] = {
    {"ip", 0},
    {"hopopt", 0},
    {"icmp", 1},
    {"igmp", 2},
    {"ggp", 3},
    {"ipencap", 4},
    {"st", 5},
    {"tcp", 6},
    {"egp", 8},
    {"igp", 9},
    {"pup", 12},
    {"udp", 17},
    {"hmp", 20},
    {"xns-idp", 22},
    {"rdp", 27},
    {"iso-tp4", 29},
    {"dccp", 33},
    {"xtp", 36},
    {"ddp", 37},
    {"idpr-cmtp", 38},
    {"ipv6", 41},
    {"ipv6-route", 43},
    {"ipv6-frag", 44},
    {"idrp", 45},
    {"rsvp", 46},
    {"gre", 47},
    {"esp", 50},
    {"ah", 51},
    {"skip", 57},
    {"ipv6-icmp", 58},
    {"icmpv6", 58},
    {"ipv6-nonxt", 59},
    {"ipv6-opts", 60},
    {"rspf", 73},
    {"vmtp", 81},
    {"eigrp", 88},
    {"ospf", 89},
    {"ax.25", 93},
    {"ipip", 94},
    {"etherip", 97},
    {"encap", 98},
    {"pim", 103},
    {"ipcomp", 108},
    {"vrrp", 112},
    {"l2tp", 115},
    {"isis", 124},
    {"sctp", 132},
    {"fc", 133},
    {"mobility-header", 135},
    {"udplite", 136},
    {"mpls-in-ip", 137},
    {"manet", 138},
    {"shim6", 139},
    {"wesp", 141},
    {"rohc", 142},
    {"ethernet", 143},
};

constexpr Name logLevels[] = {
    {"emerg", 0}, {"alert", 1}, {"crit", 2}, {"error", 3}, {"warning", 4}, {"notice", 5}, {"info", 6}, {"debug", 7},
};

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::optional<std::uint16_t> find(std::span<const Name> names, std::string_view name)
{
    const auto found = std::ranges::find_if(names, [&](const Name& n) { return equalIgnoringCase(n.name, name); });
    return found == names.end() ? std::nullopt : std::optional(found->number);
}

} // namespace

bool equalIgnoringCase(std::string_view left, std::string_view right)
{
    return std::ranges::equal(left, right, {}, lower, lower);
}

std::optional<std::uint16_t> ethertypeByName(std::string_view name)
{
    return find(ethertypes, name);
}

std::optional<std::uint8_t> ipProtocolByName(std::string_view name)
{
    const std::optional<std::uint16_t> number = find(ipProtocols, name);
    return number ? std::optional(static_cast<std::uint8_t>(*number)) : std::nullopt;
}

std::optional<int> logLevelByName(std::string_view name)
{
    const std::optional<std::uint16_t> number = find(logLevels, name);
    return number ? std::optional<int>(*number) : std::nullopt;
}

} // namespace ebtables
