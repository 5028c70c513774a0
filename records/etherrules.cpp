#include "records/etherrules.hpp"

#include "platform/action_queue.hpp"

#include <string>
#include <tuple>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "etherrules";
constexpr std::int32_t noVlan = -1;
constexpr std::uint32_t vlanIdEnd = 4095; // the last id is reserved

// Most rules fit: their options, and all their texts.
constexpr std::size_t optionsRoom = 256;
constexpr std::size_t textsRoom = 512;

// What the option names of an ethertype begin with; empty where ebtables has no IP options for it.
std::string_view ipOptionPrefix(std::string_view ethertype)
{
    if (ethertype == "IPv4" || ethertype == "0x800")
        return " --ip";
    if (ethertype == "IPv6" || ethertype == "0x86DD")
        return " --ip6";
    return {};
}

} // namespace

EtherRule::EtherRule(std::int32_t id, std::int32_t rulePrio, std::string_view inInterface,
                     std::string_view outInterface, std::string_view dstMAC, std::string_view srcMAC,
                     std::int32_t vlanId, std::string_view ethertype, std::string_view ipSrcAddr,
                     std::string_view ipDstAddr, std::string_view ipProto, std::int32_t ipPort, std::string_view target,
                     std::int32_t enableLogging)
    : m_id(id),
      m_rulePrio(rulePrio),
      m_vlanId(vlanId),
      m_ipPort(ipPort),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper")),
      m_texts(textsRoom)
{
    m_inInterface = m_texts.add({inInterface});
    m_outInterface = m_texts.add({outInterface});
    m_dstMAC = m_texts.add({dstMAC});
    m_srcMAC = m_texts.add({srcMAC});
    m_ethertype = m_texts.add({ethertype});
    m_ipSrcAddr = m_texts.add({ipSrcAddr});
    m_ipDstAddr = m_texts.add({ipDstAddr});
    m_ipProto = m_texts.add({ipProto});
    m_target = m_texts.add({target});
    AssembleSystemCalls();
}

EtherRule::EtherRule(const EtherRule& other) = default;
EtherRule& EtherRule::operator=(const EtherRule& other) = default;

void EtherRule::AssembleSystemCalls()
{
    bool invalid = false;
    std::string options;
    options.reserve(optionsRoom);
    const auto add = [&](std::string_view option, std::string_view value) { options.append(option).append(value); };
    const auto addIfSet = [&](std::string_view option, TextStore::Text value) {
        if (!m_texts[value].empty())
            add(option, m_texts[value]);
    };

    add(" -i ", m_texts[m_inInterface]);
    addIfSet(" -o ", m_outInterface);
    addIfSet(" -d ", m_dstMAC);
    addIfSet(" -s ", m_srcMAC);

    if (m_vlanId != noVlan) {
        // A negative id is huge as an unsigned number.
        if (static_cast<std::uint32_t>(m_vlanId) >= vlanIdEnd) {
            ZOL_Sysloglevel_error(m_logModule, label, 121,
                                  VAStr("%s: invalid VLAN ID%d", "AssembleSystemCalls", m_vlanId));
            invalid = true;
        }
        add(" -p 802_1Q --vlan-id ", std::to_string(m_vlanId));
        addIfSet(" --vlan-encap ", m_ethertype);
    } else if (const std::string_view ethertype = m_texts[m_ethertype]; !ethertype.empty()) {
        add(" -p ", ethertype);
        const std::string_view prefix = ipOptionPrefix(ethertype);
        const auto addIp = [&](std::string_view option, std::string_view value) {
            if (!prefix.empty() && !value.empty())
                options.append(prefix).append(option).append(value);
        };
        addIp("-source ", m_texts[m_ipSrcAddr]);
        addIp("-destination ", m_texts[m_ipDstAddr]);
        // The protocol is looked at whatever the ethertype is, so that a bad name is reported in any case.
        const std::string_view ipProto = m_texts[m_ipProto];
        if (ipProto == "UDP") {
            addIp("-protocol ", "17");
        } else if (ipProto == "TCP") {
            addIp("-protocol ", "6");
        } else if (!ipProto.empty()) {
            ZOL_Sysloglevel_error(
                m_logModule, label, 165,
                VAStr("%s: unknown ethertype %s", "AssembleSystemCalls", std::string(ipProto).c_str()));
            invalid = true;
        }
        if (m_ipPort != 0)
            addIp("-destination-port ", std::to_string(m_ipPort));
    }

    const std::string_view target = m_texts[m_target];
    std::string_view logPrefix;
    if (target == "ACCEPT") {
        logPrefix = "\"Moatkeeper accepted: \"";
    } else if (target == "DROP") {
        logPrefix = "\"Moatkeeper denied: \"";
    } else {
        ZOL_Sysloglevel_warning(m_logModule, label, 201,
                                VAStr("%s: MoatKeeperRule ID %ld has invalid target: %s", "AssembleSystemCalls",
                                      static_cast<long>(m_id), std::string(target).c_str()));
        invalid = true;
    }
    if (invalid)
        return;

    if (m_enableLogging == 1)
        add(" --log --log-prefix ", logPrefix);
    add(" -j ", target);

    const std::string_view chain = m_texts[m_outInterface].empty() ? "UserInputRules" : "UserForwardRules";
    m_deleteCommand = m_texts.add({"ebtables -D ", chain, options});
    m_addCommand = m_texts.add({"ebtables -A ", chain, options});
}

int EtherRule::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(std::string(addCommand()));
    return queue.process();
}

bool EtherRule::operator==(const EtherRule& other) const
{
    const auto rowValues = [](const EtherRule& rule) {
        const TextStore& texts = rule.m_texts;
        return std::tuple(rule.m_id, rule.m_rulePrio, texts[rule.m_inInterface], texts[rule.m_outInterface],
                          texts[rule.m_dstMAC], texts[rule.m_srcMAC], rule.m_vlanId, texts[rule.m_ethertype],
                          texts[rule.m_ipSrcAddr], texts[rule.m_ipDstAddr], texts[rule.m_ipProto], rule.m_ipPort,
                          texts[rule.m_target], rule.m_enableLogging);
    };
    return rowValues(*this) == rowValues(other);
}

} // namespace zol::moatkeeper
