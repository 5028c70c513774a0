// What the readers decide about a row before it becomes a record, and the order of the records. Pure.
#pragma once

#include "records/rows.hpp"
#include "records/unusable.hpp"

#include <cstdint>
#include <optional>

namespace zol::moatkeeper
{

// The first reason to pass a row over; none for a row that becomes a record.
std::optional<Unusable> whyPassedOver(const InputPolicyRow& row);
std::optional<Unusable> whyPassedOver(const ForwardingPolicyRow& row);
std::optional<Unusable> whyPassedOver(const RuleRow& row);
std::optional<Unusable> whyPassedOver(const FilterRow& row);
// filterIsValid: the filter that the row refers to, the first of that id in their order, is there and valid.
std::optional<Unusable> whyPassedOver(const FilterRuleRow& row, bool filterIsValid);

// Orders by priority, for stable sorts: rows of equal priority stay in the order of their table.
constexpr bool comesBeforeAsRule(std::int32_t prio, std::int32_t otherPrio)
{
    return prio < otherPrio;
}
// The filter set up last has its jumps first in FORWARD, so the smallest priority goes to the end.
constexpr bool comesBeforeAsFilter(std::int32_t prio, std::int32_t otherPrio)
{
    return prio > otherPrio;
}

} // namespace zol::moatkeeper
