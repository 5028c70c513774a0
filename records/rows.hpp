// The rows of the six tables as plain values, each with its columns in their order.
//
// Texts are views: they stay with whoever fills the row.
#pragma once

#include <cstdint>
#include <string_view>

namespace zol::moatkeeper
{

// "MoatKeeper", of which only the first row counts. Any text is passed on.
struct GlobalRow {
    std::string_view inputPolicy = {};
    std::string_view forwardingPolicy = {};
};

// "MoatKeeperInputPolicy".
struct InputPolicyRow {
    std::int32_t id = 0;
    std::int32_t enabled = 1;        // exactly 1
    std::string_view interface = {}; // the port that frames arrive on
    std::string_view policy = {};    // "ACCEPT" or "DROP"
    std::int32_t enableLogging = 0;  // exactly 1 logs
};

// "MoatKeeperForwardingPolicy".
struct ForwardingPolicyRow {
    std::int32_t id = 0;
    std::int32_t enabled = 1;           // exactly 1
    std::string_view inInterface = {};  // the ports that frames arrive on
    std::string_view outInterface = {}; // and leave by
    std::string_view policy = {};       // as for input policies, like the switch for logging
    std::int32_t enableLogging = 0;
};

// "MoatKeeperRuleset".
struct RuleRow {
    std::int32_t id = 0;
    std::int32_t enabled = 1;  // anything but 0
    std::int32_t rulePrio = 1; // smaller is earlier; not 0
    std::string_view inInterface = {};
    std::string_view outInterface = {}; // empty selects the input chain
    std::string_view dstMAC = {};       // empty texts match everything
    std::string_view srcMAC = {};
    std::int32_t vlanId = -1; // -1 is no VLAN match
    std::string_view ethertype = {};
    std::string_view ipSrcAddr = {};
    std::string_view ipDstAddr = {};
    std::string_view ipProto = {};  // "UDP", "TCP" or empty
    std::int32_t ipPort = 0;        // 0 is no port match
    std::string_view target = {};   // "ACCEPT" or "DROP"
    std::int32_t enableLogging = 0; // exactly 1 logs
};

// "MoatKeeperBridgeFilters".
struct FilterRow {
    std::int32_t id = 0;
    std::int32_t enabled = 1; // anything but 0
    std::int32_t prio = 1;    // the filter of the smallest is asked first; not 0
    std::string_view inInterface = {};
    std::string_view outInterface = {};
    std::string_view matchCriteria = {}; // "MAC", "IPv4", "IPv6", "VLAN" or the same in lower case
    std::string_view mode = {};          // "blacklist" or "whitelist"
};

// "MoatKeeperBridgeFilterRules".
struct FilterRuleRow {
    std::int32_t id = 0;
    std::int32_t enabled = 1; // anything but 0
    std::int32_t filterId = 0;
    std::string_view filterMatch = {}; // what the filter's criteria say: a MAC address, an IP source or a VLAN id
};

} // namespace zol::moatkeeper
