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

// Rules of two forms, or of one, that have the same values where both forms fix bits.
//
//   -s A -d X, -s B -d Y    and    -s A, -s C    ->    one place: (-s A -d X) and (-s A)
struct Meeting {
    std::size_t form = 0; // the one; that of the other is not before it
    std::size_t other = 0;
};

// Where rules meet each other.
struct Meetings {
    std::vector<Meeting> places;
    std::vector<std::vector<std::uint32_t>> of; // for each rule: its places
};

// Two rules that fix different values of a bit never meet. Time: rules times forms.
Meetings meetings(std::span<const FixedForm> forms, std::span<const ebtables::FixedBits> bits);

} // namespace compiled
