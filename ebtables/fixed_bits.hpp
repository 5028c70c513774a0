// The bits of a frame that rules fix, as numbers that can be hashed and compared: what finds among thousands of rules
// those that may have to do with a given one.
#pragma once

#include "ebtables/cover.hpp"

#include <array>
#include <cstddef>
#include <cstdint>

namespace ebtables
{

// A frame that matches a conjunction has `value` wherever `mask` has ones; both have room for the values of every kind
// of match, one beside the other. Matches that are negated, name several ports or a range of numbers fix nothing here,
// and of several of one kind only the first does.
//
// -i eth0 --ip-source 10.0.0.0/8: mask has ones for the sixteen bytes of the port's name and for eight bits of the
// address; value has "eth0", zeros, and 10.
struct FixedBits {
    using Bits = std::array<std::uint64_t, 13>;

    explicit FixedBits(const Conjunction& conjunction);

    Bits value{};
    Bits mask{};
};

// Of the value where the mask has ones. Words without ones take no time.
std::uint64_t hashWhere(const FixedBits::Bits& mask, const FixedBits::Bits& value);

} // namespace ebtables
