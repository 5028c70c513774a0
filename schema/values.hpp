// The kinds of values that the columns of the tables hold.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
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

// The longest text that can mean something, in bytes. 0 for integers.
std::size_t longestText(ValueKind kind);

// Nothing when the text can stand in a command line as one operand, else what was expected: `a MAC address such as
// 00:11:22:33:44:55, or ADDRESS/MASK, as a single word`. One operand is printable ASCII without quotes and `;`, not
// longer than its kind, without a blank but the one after a leading `!`, and does not look like an option (a number
// such as -1 does not). No value, the empty text, is fine. Whether the operand means something is another matter: the
// daemon and the kernel's tool say so.
std::optional<std::string> expectedOperand(ValueKind kind, std::string_view text);

} // namespace schema
