#include "handler/passed_over.hpp"

namespace zol::moatkeeper
{

std::optional<Unusable> whyPassedOver(const InputPolicyRow& row)
{
    return row.enabled == 1 ? std::nullopt : std::optional(Unusable::Disabled);
}

std::optional<Unusable> whyPassedOver(const ForwardingPolicyRow& row)
{
    return row.enabled == 1 ? std::nullopt : std::optional(Unusable::Disabled);
}

std::optional<Unusable> whyPassedOver(const RuleRow& row)
{
    if (row.enabled == 0)
        return Unusable::Disabled;
    if (row.inInterface.empty())
        return Unusable::NoInInterface;
    if (row.rulePrio == 0)
        return Unusable::PriorityZero;
    return std::nullopt;
}

std::optional<Unusable> whyPassedOver(const FilterRow& row)
{
    if (row.enabled == 0)
        return Unusable::Disabled;
    if (row.inInterface.empty() || row.outInterface.empty() || row.matchCriteria.empty() || row.mode.empty())
        return Unusable::Incomplete;
    if (row.prio == 0)
        return Unusable::PriorityZero;
    return std::nullopt;
}

std::optional<Unusable> whyPassedOver(const FilterRuleRow& row, bool filterIsValid)
{
    if (row.enabled == 0)
        return Unusable::Disabled;
    if (!filterIsValid)
        return Unusable::InvalidReference;
    if (row.filterMatch.empty())
        return Unusable::NoMatch;
    return std::nullopt;
}

} // namespace zol::moatkeeper
