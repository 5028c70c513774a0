// The kernel's bridge filter table as `ebtables-save` prints it.
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

struct TableRule {
    std::string text;                 // the options as printed, without chain and counters
    std::optional<Rule> rule;         // nothing when the rule has parts that moatkeeper does not use
    std::optional<Counters> counters; // nothing unless the output has them (-c)
};

struct Chain {
    std::string name;
    std::string policy; // ACCEPT, DROP or RETURN
    std::vector<TableRule> rules;
};

struct Table {
    std::vector<Chain> chains; // in the order printed, the built-in ones first

    const Chain* find(std::string_view chain) const;
    Chain* find(std::string_view chain);
};

// Reads the table "filter" out of the output of `ebtables-save` or `ebtables-save -c`. Lines that are none of its are
// passed over; an empty output (a kernel that has no table yet) gives the three built-in chains with policy ACCEPT.
Table parseSaved(std::string_view output);

} // namespace ebtables
