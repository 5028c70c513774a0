#include "records/etherrules.hpp"

#include "platform/action_queue.hpp"
#include "records/row_lines.hpp"

#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "etherrules";

} // namespace

EtherRule::EtherRule(std::int32_t id, std::int32_t rulePrio, std::string_view inInterface,
                     std::string_view outInterface, std::string_view dstMAC, std::string_view srcMAC,
                     std::int32_t vlanId, std::string_view ethertype, std::string_view ipSrcAddr,
                     std::string_view ipDstAddr, std::string_view ipProto, std::int32_t ipPort, std::string_view target,
                     std::int32_t enableLogging)
    : m_id(id),
      m_rulePrio(rulePrio),
      m_inInterface(inInterface),
      m_outInterface(outInterface),
      m_dstMAC(dstMAC),
      m_srcMAC(srcMAC),
      m_vlanId(vlanId),
      m_ethertype(ethertype),
      m_ipSrcAddr(ipSrcAddr),
      m_ipDstAddr(ipDstAddr),
      m_ipProto(ipProto),
      m_ipPort(ipPort),
      m_target(target),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void EtherRule::AssembleSystemCalls()
{
    RowLines lines = linesOf(RuleRow{.id = m_id,
                                     .rulePrio = m_rulePrio,
                                     .inInterface = m_inInterface,
                                     .outInterface = m_outInterface,
                                     .dstMAC = m_dstMAC,
                                     .srcMAC = m_srcMAC,
                                     .vlanId = m_vlanId,
                                     .ethertype = m_ethertype,
                                     .ipSrcAddr = m_ipSrcAddr,
                                     .ipDstAddr = m_ipDstAddr,
                                     .ipProto = m_ipProto,
                                     .ipPort = m_ipPort,
                                     .target = m_target,
                                     .enableLogging = m_enableLogging});
    m_addCommand = std::move(lines.addCommand);
    m_deleteCommand = std::move(lines.deleteCommand);

    for (const Unusable reason : lines.reasons) {
        if (reason == Unusable::InvalidVlanId)
            ZOL_Sysloglevel_error(m_logModule, label, 121,
                                  VAStr("%s: invalid VLAN ID%d", "AssembleSystemCalls", m_vlanId));
        else if (reason == Unusable::UnknownProtocol)
            ZOL_Sysloglevel_error(m_logModule, label, 165,
                                  VAStr("%s: unknown ethertype %s", "AssembleSystemCalls", m_ipProto.c_str()));
        else if (reason == Unusable::InvalidTarget)
            ZOL_Sysloglevel_warning(m_logModule, label, 201,
                                    VAStr("%s: MoatKeeperRule ID %ld has invalid target: %s", "AssembleSystemCalls",
                                          static_cast<long>(m_id), m_target.c_str()));
    }
}

int EtherRule::ApplySystemCall(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_addCommand);
    return queue->process();
}

bool EtherRule::operator!=(const EtherRule& other) const
{
    const auto rowValues = [](const EtherRule& rule) {
        return std::tie(rule.m_id, rule.m_rulePrio, rule.m_inInterface, rule.m_outInterface, rule.m_dstMAC,
                        rule.m_srcMAC, rule.m_vlanId, rule.m_ethertype, rule.m_ipSrcAddr, rule.m_ipDstAddr,
                        rule.m_ipProto, rule.m_ipPort, rule.m_target, rule.m_enableLogging);
    };
    return rowValues(*this) != rowValues(other);
}

} // namespace zol::moatkeeper
