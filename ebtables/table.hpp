// The bridge's filter table as a value: the kernel's as `ebtables-save` prints it, or one that is made of commands.
#pragma once

#include "ebtables/command.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebtables
{

struct Counters {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    bool operator==(const Counters&) const = default;
};

// A mark that whoever makes a table gives to its parts, to find out later what they are made of.
using Origin = std::uint64_t;
inline constexpr Origin noOrigin = 0;

struct TableRule {
    std::string text;                 // the options as printed, without chain and counters; "" when not printed
    std::optional<Rule> rule;         // nothing when the rule has parts that moatkeeper does not use
    std::optional<Counters> counters; // nothing unless the output has them (-c)
    Origin origin = noOrigin;
    // From whoever keeps a table from change to change: two with the same number have the same rule. 0: none is given.
    std::uint64_t number = 0;
};

struct Chain {
    std::string name;
    std::string policy; // ACCEPT, DROP or RETURN
    std::vector<TableRule> rules;
    Origin policyOrigin = noOrigin;
};

struct Table {
    std::vector<Chain> chains; // in the order printed, the built-in ones first

    const Chain* find(std::string_view chain) const;
    Chain* find(std::string_view chain);
};

// What a kernel that has no table yet behaves like: INPUT, FORWARD and OUTPUT, empty, policy ACCEPT.
Table emptyTable();

// Reads the table "filter" out of the output of `ebtables-save` or `ebtables-save -c`. Lines that are none of its are
// passed over; an empty output gives the empty table.
Table parseSaved(std::string_view output);

} // namespace ebtables
