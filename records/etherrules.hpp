// One L2 rule: the values of an accepted row of "MoatKeeperRuleset" and the ebtables lines made of them.
#pragma once

#include "platform/sysloglevel.h"
#include "records/text_store.hpp"

#include <cstdint>
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

    // Defaulted, but not here: whoever copies rules copies thousands, and etherrules.cpp is built for speed.
    EtherRule(const EtherRule& other);
    EtherRule& operator=(const EtherRule& other);

    // Hands the add line to the queue and has it carried out; returns what the queue's process returns.
    int ApplySystemCall(cfg::ActionQueue& queue) const;

    std::int32_t id() const { return m_id; }
    std::int32_t rulePrio() const { return m_rulePrio; }
    // Valid as long as the record.
    std::string_view addCommand() const { return m_texts[m_addCommand]; }
    std::string_view deleteCommand() const { return m_texts[m_deleteCommand]; }

    // Compares the row values; the lines follow from them.
    bool operator==(const EtherRule& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::int32_t m_rulePrio;
    TextStore::Text m_inInterface;
    TextStore::Text m_outInterface;
    TextStore::Text m_dstMAC;
    TextStore::Text m_srcMAC;
    std::int32_t m_vlanId;
    TextStore::Text m_ethertype;
    TextStore::Text m_ipSrcAddr;
    TextStore::Text m_ipDstAddr;
    TextStore::Text m_ipProto;
    std::int32_t m_ipPort;
    TextStore::Text m_target;
    std::int32_t m_enableLogging;
    TextStore::Text m_addCommand;
    TextStore::Text m_deleteCommand;
    ZOL_Sysloglevel_Module m_logModule;
    TextStore m_texts; // of all the texts above
};

} // namespace zol::moatkeeper
