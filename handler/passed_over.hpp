// Which rows the readers pass over, and why, before the others become records. Pure.
#pragma once

#include "records/rows.hpp"
#include "records/unusable.hpp"

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

} // namespace zol::moatkeeper
