// Which rules of a list may match the same frame, without comparing each with each.
#pragma once

#include "ebtables/fixed_bits.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace compiled
{

// Rules that fix the same bits.
struct FixedForm {
    ebtables::FixedBits::Bits mask{};
    std::vector<std::size_t> rules; // ascending
};

// Rules of two forms, or of one, that have the same values where both forms fix bits. The numbers of the two.
//
//   -s A -d X, -s B -d Y    and    -s A, -s C    ->    one meeting: (-s A -d X) and (-s A)
struct Meeting {
    std::size_t form = 0;
    std::size_t other = 0;
};

struct Meetings {
    std::vector<Meeting> all;
    std::vector<std::vector<std::uint32_t>> of; // for each rule: those that it takes part in
};

// Two rules that fix different values of a bit never meet. bits: of all rules. Time: rules times forms; less where what
// all forms fix tells most of the rules apart.
Meetings meetings(std::span<const FixedForm> forms, std::span<const ebtables::FixedBits* const> bits);

} // namespace compiled
