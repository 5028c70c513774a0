#include "schema/values.hpp"

namespace schema
{

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

} // namespace schema
