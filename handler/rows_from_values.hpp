// A row of each table from its values by column name, whatever holds them.
//
// values has integer(column), which gives an std::int32_t, and text(column), which gives a text that lives as long as
// the row that is made here.
#pragma once

#include "records/rows.hpp"

namespace zol::moatkeeper
{

template <typename Values>
GlobalRow globalRow(const Values& values)
{
    return {.inputPolicy = values.text("GlobalInputPolicy"), .forwardingPolicy = values.text("GlobalForwardingPolicy")};
}

template <typename Values>
InputPolicyRow inputPolicyRow(const Values& values)
{
    return {.id = values.integer("Id"),
            .enabled = values.integer("Enabled"),
            .interface = values.text("Interface"),
            .policy = values.text("Policy"),
            .enableLogging = values.integer("EnableLogging")};
}

template <typename Values>
ForwardingPolicyRow forwardingPolicyRow(const Values& values)
{
    return {.id = values.integer("Id"),
            .enabled = values.integer("Enabled"),
            .inInterface = values.text("InInterface"),
            .outInterface = values.text("OutInterface"),
            .policy = values.text("Policy"),
            .enableLogging = values.integer("EnableLogging")};
}

template <typename Values>
RuleRow ruleRow(const Values& values)
{
    return {.id = values.integer("Id"),
            .enabled = values.integer("Enabled"),
            .rulePrio = values.integer("RulePrio"),
            .inInterface = values.text("InInterface"),
            .outInterface = values.text("OutInterface"),
            .dstMAC = values.text("DstMAC"),
            .srcMAC = values.text("SrcMAC"),
            .vlanId = values.integer("VLANID"),
            .ethertype = values.text("Ethertype"),
            .ipSrcAddr = values.text("IPSrcAddr"),
            .ipDstAddr = values.text("IPDstAddr"),
            .ipProto = values.text("IPProto"),
            .ipPort = values.integer("IPPort"),
            .target = values.text("Target"),
            .enableLogging = values.integer("EnableLogging")};
}

template <typename Values>
FilterRow filterRow(const Values& values)
{
    return {.id = values.integer("Id"),
            .enabled = values.integer("Enabled"),
            .prio = values.integer("Prio"),
            .inInterface = values.text("InInterface"),
            .outInterface = values.text("OutInterface"),
            .matchCriteria = values.text("MatchCriteria"),
            .mode = values.text("Mode")};
}

template <typename Values>
FilterRuleRow filterRuleRow(const Values& values)
{
    return {.id = values.integer("Id"),
            .enabled = values.integer("Enabled"),
            .filterId = values.integer("BridgeFilterID"),
            .filterMatch = values.text("FilterMatch")};
}

} // namespace zol::moatkeeper
