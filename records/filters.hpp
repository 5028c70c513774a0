// Bridge filters: a chain of its own per filter, in the path of frames between two ports, and the rules in it.
#pragma once

#include "platform/sysloglevel.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace zol::cfg
{
class ActionQueue;
}

namespace zol::moatkeeper
{

// Both records are plain values: assembled once in the constructor, never changed afterwards. Values that make no
// filter or rule are logged and leave all lines empty; such a record keeps its place in the list all the same.

// One enabled, complete row of "MoatKeeperBridgeFilters".
class BridgeFilter
{
public:
    // mode: "blacklist" (frames pass unless a rule drops them) or "whitelist" (the reverse).
    // matchCriteria: what the filter's rules match, "MAC", "IPv4", "IPv6", "VLAN" or the same in lower case; all
    // but the first also restrict the filter to that protocol. prio: the filter of the smallest is consulted first.
    BridgeFilter(std::int32_t id, std::string_view mode, std::string_view inInterface, std::string_view outInterface,
                 std::string_view matchCriteria, std::int32_t prio);

    // Create the chain and insert the jumps to it; delete the jumps and then the chain. Both have their lines
    // carried out as one group and return what the queue's process returns.
    int ApplySetUpCommands(cfg::ActionQueue* queue) const;
    int ApplyTearDownCommands(cfg::ActionQueue* queue) const;

    std::int32_t id() const { return m_id; }
    std::int32_t prio() const { return m_prio; }
    const std::string& mode() const { return m_mode; }
    const std::string& matchCriteria() const { return m_matchCriteria; }
    const std::string& chainName() const { return m_chainName; } // set for an invalid filter, too
    bool valid() const { return m_valid; }
    const std::string& createChainCommand() const { return m_createChainCommand; }
    const std::string& insertJumpsCommand() const { return m_insertJumpsCommand; }
    const std::string& flushChainCommand() const { return m_flushChainCommand; }
    const std::string& deleteJumpsCommand() const { return m_deleteJumpsCommand; }

    // Compares the row values but the match criteria: a change of these alone is no change of the filter.
    bool operator!=(const BridgeFilter& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::string m_outInterface;
    std::string m_inInterface;
    std::string m_matchCriteria;
    std::string m_mode;
    std::int32_t m_prio;
    std::string m_createChainCommand;
    std::string m_insertJumpsCommand;
    std::string m_flushChainCommand;
    std::string m_deleteJumpsCommand;
    std::string m_chainName;
    bool m_valid = false;
    ZOL_Sysloglevel_Module m_logModule;
};

// One enabled row of "MoatKeeperBridgeFilterRules", with what it takes from its filter.
class BridgeFilterRule
{
public:
    // mode, chainName, matchCriteria: the filter's. filterMatch: the MAC address, IP source or VLAN id to match.
    BridgeFilterRule(std::int32_t id, std::string_view mode, std::string_view chainName, std::string_view matchCriteria,
                     std::string_view filterMatch);

    // Hands the add line to the queue and has it carried out; returns what the queue's process returns.
    int ApplySystemCall(cfg::ActionQueue* queue) const;

    std::int32_t id() const { return m_id; }
    const std::string& addCommand() const { return m_addCommand; }
    const std::string& deleteCommand() const { return m_deleteCommand; }

    // Compares the row values and what was taken from the filter.
    bool operator!=(const BridgeFilterRule& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::string m_mode;
    std::string m_chainName;
    std::string m_matchCriteria;
    std::string m_filterMatch;
    std::string m_addCommand;
    std::string m_deleteCommand;
    ZOL_Sysloglevel_Module m_logModule;
};

} // namespace zol::moatkeeper
