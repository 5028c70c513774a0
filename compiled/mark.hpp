// A mark for each rule that says which one it is, whatever rules there are beside it.
#pragma once

#include "ebtables/table.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace compiled
{

// Of rules of one chain that say the same, the first one's mark does not depend on how many there are. The same rules
// have the same marks in every process. No mark is noOrigin.
class Marker
{
public:
    explicit Marker(std::string_view chain);

    // rule: as ebtables::toText has it. To be called for each rule of the chain, in order.
    ebtables::Origin rule(std::string_view rule);
    ebtables::Origin policy(std::string_view policy) const;

private:
    bool give(ebtables::Origin mark);

    std::uint64_t m_chain;                 // hash of its name
    std::vector<ebtables::Origin> m_given; // each at the place that it says, or the next one that was free
    std::size_t m_count = 0;
};

// Gives each rule and each policy of the table its mark.
void mark(ebtables::Table& table);

} // namespace compiled
