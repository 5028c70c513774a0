// A mark for each rule that says which one it is, whatever rules there are beside it.
#pragma once

#include "ebtables/table.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
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

    // Of the first rule that says this; and of the next one that says the same as the rule with that mark.
    ebtables::Origin first(std::string_view rule) const;
    static ebtables::Origin next(ebtables::Origin mark);

private:
    bool give(ebtables::Origin mark);

    std::uint64_t m_chain;                 // hash of its name
    std::vector<ebtables::Origin> m_given; // each at the place that it says, or the next one that was free
    std::size_t m_count = 0;
};

using TableRules = std::span<const ebtables::TableRule>;
using Marks = std::span<const ebtables::Origin>;

// Gives the few rules that come in place of others their marks, while the rules before and after them keep theirs,
// which are given; all by their texts. False, and nothing is done, where one that comes or goes may say the same as
// another rule: then the marks of all depend on their order.
bool markAlone(const Marker& marker, Marks before, TableRules removed, Marks after,
               std::span<ebtables::TableRule> added);

// Gives each rule and each policy of the table its mark.
void mark(ebtables::Table& table);

} // namespace compiled
