// The kinds of values that the columns of the tables hold.
#pragma once

#include <string_view>

namespace schema
{

// The kinds that the daemon and the kernel's tool tell apart.
enum class ValueKind {
    Id,
    Switch, // 0 or 1
    RulePriority,
    FilterPriority,
    Interface,
    Mac,
    VlanId,
    Ethertype,
    Network, // IPv4 or IPv6
    Protocol,
    Port,
    Target,
    Criteria,
    Mode,
    FilterId,
    FilterMatch,
};

// Whether values of this kind are texts; the others are integers of 32 bits.
bool isText(ValueKind kind);

// What values mean something: "a MAC address such as 00:11:22:33:44:55, or ADDRESS/MASK".
std::string_view expectedValue(ValueKind kind);

} // namespace schema
