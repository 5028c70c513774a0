// One L2 rule: the values of an accepted row of "MoatKeeperRuleset" and the ebtables lines made of them.
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

// A plain value: assembled once in the constructor, never changed afterwards. Values that make no rule are
// logged and leave both lines empty; such a record keeps its place in the list all the same.
class EtherRule
{
public:
    // rulePrio: smaller is earlier. outInterface: empty selects the input chain. vlanId: -1 is no VLAN match.
    // ipProto: "UDP", "TCP" or empty. ipPort: 0 is no port match. target: "ACCEPT" or "DROP".
    // enableLogging: exactly 1 logs matching frames. All texts go into the lines as they are.
    EtherRule(std::int32_t id, std::int32_t rulePrio, std::string_view inInterface, std::string_view outInterface,
              std::string_view dstMAC, std::string_view srcMAC, std::int32_t vlanId, std::string_view ethertype,
              std::string_view ipSrcAddr, std::string_view ipDstAddr, std::string_view ipProto, std::int32_t ipPort,
              std::string_view target, std::int32_t enableLogging);

    // Hands the add line to the queue and has it carried out; returns what the queue's process returns.
    int ApplySystemCall(cfg::ActionQueue* queue) const;

    std::int32_t id() const { return m_id; }
    std::int32_t rulePrio() const { return m_rulePrio; }
    const std::string& addCommand() const { return m_addCommand; }
    const std::string& deleteCommand() const { return m_deleteCommand; }

    // Compares the row values; the lines follow from them.
    bool operator!=(const EtherRule& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::int32_t m_rulePrio;
    std::string m_inInterface;
    std::string m_outInterface;
    std::string m_dstMAC;
    std::string m_srcMAC;
    std::int32_t m_vlanId;
    std::string m_ethertype;
    std::string m_ipSrcAddr;
    std::string m_ipDstAddr;
    std::string m_ipProto;
    std::int32_t m_ipPort;
    std::string m_target;
    std::int32_t m_enableLogging;
    std::string m_addCommand;
    std::string m_deleteCommand;
    ZOL_Sysloglevel_Module m_logModule;
};

} // namespace zol::moatkeeper
