// Finds conjunctions that may cover a given one by their values, not one by one.
#pragma once

#include "ebtables/fixed_bits.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <unordered_map>
#include <vector>

namespace moatctl
{

// Conjunctions of the same form, that is which look at the same bits of a frame, are kept together. One of them covers
// another conjunction only if that one fixes all these bits, and to the same values. Matches that are negated, name
// several interfaces or a range of numbers take no part in this, and of several of one kind only the first does: any of
// the conjunctions found may still not cover, and one that looks at the same thing twice may not be found.
class CoverIndex
{
public:
    // Numbers are to be added in ascending order.
    void add(const ebtables::Conjunction& conjunction, std::size_t number);

    // Calls back with lists of numbers, each ascending, in which the conjunctions are that may cover this one.
    void find(const ebtables::Conjunction& inner,
              const std::function<void(std::span<const std::size_t>)>& onList) const;

    void clear();

private:
    using Bits = ebtables::FixedBits::Bits;
    struct Form {
        Bits mask;
        std::unordered_map<std::uint64_t, std::vector<std::size_t>> byHash;
    };

    std::vector<Form> m_forms;
    std::map<Bits, std::size_t> m_places; // in m_forms
};

} // namespace moatctl
