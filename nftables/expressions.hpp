// A rule as the kernel holds it: a list of expressions. Those that `ebtables` writes, and no others, have a meaning as
// ebtables::Rule.
//
// Threading: no shared state. No operation throws but std::bad_alloc.
#pragma once

#include "ebtables/command.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nftables
{

enum class ExpressionKind : std::uint8_t {
    Meta,    // loads: key
    Payload, // loads: offset and length in the frame's link layer header
    Bitwise, // data is the mask
    Compare, // key is the operator, data what is compared with
    Match,   // an ebtables extension: name and data
    Target,  // likewise
    Counter,
    Verdict, // key is the code as the kernel counts them, chain where a jump goes
    Other,   // anything else, and any of these in a form that `ebtables` does not write
};

struct Expression {
    static constexpr std::size_t maxData = 80; // the longest extension's

    ExpressionKind kind = ExpressionKind::Other;
    std::uint8_t size = 0; // of data
    std::uint32_t key = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::array<char, 8> name{};
    std::array<std::uint8_t, maxData> data{};
    bool operator==(const Expression&) const = default;
};

struct Counters {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

struct Expressions {
    std::vector<Expression> list;
    std::string chain; // of a verdict that jumps
    Counters counters; // what the counter has counted
};

// What `ebtables` writes for the rule, in its order.
void encode(const ebtables::Rule& rule, Expressions& expressions);

// The rule that these are, or nothing when `ebtables` would not have written them for any rule that it and we know.
std::optional<ebtables::Rule> decode(const Expressions& expressions);

} // namespace nftables
