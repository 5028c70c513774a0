#include "records/etherrules.hpp"

#include "platform/action_queue.hpp"

#include <string_view>
#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "etherrules";
constexpr std::int32_t noVlan = -1;
constexpr std::uint32_t vlanIdEnd = 4095; // the last id is reserved

// What the option names of an ethertype begin with; empty where ebtables has no IP options for it.
std::string_view ipOptionPrefix(const std::string& ethertype)
{
    if (ethertype == "IPv4" || ethertype == "0x800")
        return " --ip";
    if (ethertype == "IPv6" || ethertype == "0x86DD")
        return " --ip6";
    return {};
}

} // namespace

EtherRule::EtherRule(std::int32_t id, std::int32_t rulePrio, std::string inInterface, std::string outInterface,
                     std::string dstMAC, std::string srcMAC, std::int32_t vlanId, std::string ethertype,
                     std::string ipSrcAddr, std::string ipDstAddr, std::string ipProto, std::int32_t ipPort,
                     std::string target, std::int32_t enableLogging)
    : m_id(id),
      m_rulePrio(rulePrio),
      m_inInterface(std::move(inInterface)),
      m_outInterface(std::move(outInterface)),
      m_dstMAC(std::move(dstMAC)),
      m_srcMAC(std::move(srcMAC)),
      m_vlanId(vlanId),
      m_ethertype(std::move(ethertype)),
      m_ipSrcAddr(std::move(ipSrcAddr)),
      m_ipDstAddr(std::move(ipDstAddr)),
      m_ipProto(std::move(ipProto)),
      m_ipPort(ipPort),
      m_target(std::move(target)),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void EtherRule::AssembleSystemCalls()
{
    bool invalid = false;

    // Most rules fit; thousands are assembled at a time.
    std::string options;
    options.reserve(256);
    options.append(" -i ").append(m_inInterface);
    if (!m_outInterface.empty())
        options += " -o " + m_outInterface;
    if (!m_dstMAC.empty())
        options += " -d " + m_dstMAC;
    if (!m_srcMAC.empty())
        options += " -s " + m_srcMAC;

    if (m_vlanId != noVlan) {
        // A negative id is huge as an unsigned number.
        if (static_cast<std::uint32_t>(m_vlanId) >= vlanIdEnd) {
            ZOL_Sysloglevel_error(m_logModule, label, 121,
                                  VAStr("%s: invalid VLAN ID%d", "AssembleSystemCalls", m_vlanId));
            invalid = true;
        }
        options += " -p 802_1Q --vlan-id " + std::to_string(m_vlanId);
        if (!m_ethertype.empty())
            options += " --vlan-encap " + m_ethertype;
    } else if (!m_ethertype.empty()) {
        options += " -p " + m_ethertype;

        std::string ipOptions;
        const std::string prefix(ipOptionPrefix(m_ethertype));
        if (!m_ipSrcAddr.empty())
            ipOptions += prefix + "-source " + m_ipSrcAddr;
        if (!m_ipDstAddr.empty())
            ipOptions += prefix + "-destination " + m_ipDstAddr;
        if (!m_ipProto.empty()) {
            // Looked at whatever the ethertype is, so that a bad name is reported in any case.
            const char* number = "";
            if (m_ipProto == "UDP") {
                number = "17";
            } else if (m_ipProto == "TCP") {
                number = "6";
            } else {
                ZOL_Sysloglevel_error(m_logModule, label, 165,
                                      VAStr("%s: unknown ethertype %s", "AssembleSystemCalls", m_ipProto.c_str()));
                invalid = true;
            }
            ipOptions += prefix + "-protocol " + number;
        }
        if (m_ipPort != 0)
            ipOptions += prefix + "-destination-port " + std::to_string(m_ipPort);
        if (!prefix.empty())
            options += ipOptions;
    }

    std::string_view logPrefix;
    if (m_target == "ACCEPT") {
        logPrefix = "\"Moatkeeper accepted: \"";
    } else if (m_target == "DROP") {
        logPrefix = "\"Moatkeeper denied: \"";
    } else {
        ZOL_Sysloglevel_warning(m_logModule, label, 201,
                                VAStr("%s: MoatKeeperRule ID %ld has invalid target: %s", "AssembleSystemCalls",
                                      static_cast<long>(m_id), m_target.c_str()));
        invalid = true;
    }
    if (invalid)
        return;

    if (m_enableLogging == 1)
        options.append(" --log --log-prefix ").append(logPrefix);
    options += " -j " + m_target;

    const char* chain = m_outInterface.empty() ? "UserInputRules" : "UserForwardRules";
    const auto command = [&](const char* action) {
        std::string line;
        line.reserve(std::string_view("ebtables -A UserForwardRules").size() + options.size());
        return line.append("ebtables ").append(action).append(chain).append(options);
    };
    m_deleteCommand = command("-D ");
    m_addCommand = command("-A ");
}

int EtherRule::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_addCommand);
    return queue.process();
}

bool EtherRule::operator==(const EtherRule& other) const
{
    const auto rowValues = [](const EtherRule& rule) {
        return std::tie(rule.m_id, rule.m_rulePrio, rule.m_inInterface, rule.m_outInterface, rule.m_dstMAC,
                        rule.m_srcMAC, rule.m_vlanId, rule.m_ethertype, rule.m_ipSrcAddr, rule.m_ipDstAddr,
                        rule.m_ipProto, rule.m_ipPort, rule.m_target, rule.m_enableLogging);
    };
    return rowValues(*this) == rowValues(other);
}

} // namespace zol::moatkeeper
