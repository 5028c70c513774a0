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
    for (const std::string_view text :
         {inInterface, outInterface, dstMAC, srcMAC, ethertype, ipSrcAddr, ipDstAddr, ipProto, target})
        m_texts.add({text});
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
    const auto addIfSet = [&](std::string_view option, Text value) {
        if (!m_texts[value].empty())
            add(option, m_texts[value]);
    };

    add(" -i ", m_texts[InInterface]);
    addIfSet(" -o ", OutInterface);
    addIfSet(" -d ", DstMAC);
    addIfSet(" -s ", SrcMAC);

    if (m_vlanId != noVlan) {
        // A negative id is huge as an unsigned number.
        if (static_cast<std::uint32_t>(m_vlanId) >= vlanIdEnd) {
            ZOL_Sysloglevel_error(m_logModule, label, 121,
                                  VAStr("%s: invalid VLAN ID%d", "AssembleSystemCalls", m_vlanId));
            invalid = true;
        }
        add(" -p 802_1Q --vlan-id ", std::to_string(m_vlanId));
        addIfSet(" --vlan-encap ", Ethertype);
    } else if (const std::string_view ethertype = m_texts[Ethertype]; !ethertype.empty()) {
        add(" -p ", ethertype);
        const std::string_view prefix = ipOptionPrefix(ethertype);
        const auto addIp = [&](std::string_view option, std::string_view value) {
            if (!prefix.empty() && !value.empty())
                options.append(prefix).append(option).append(value);
        };
        addIp("-source ", m_texts[IPSrcAddr]);
        addIp("-destination ", m_texts[IPDstAddr]);
        // The protocol is looked at whatever the ethertype is, so that a bad name is reported in any case.
        const std::string_view ipProto = m_texts[IPProto];
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

    const std::string_view target = m_texts[Target];
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

    const std::string_view chain = m_texts[OutInterface].empty() ? "UserInputRules" : "UserForwardRules";
    m_texts.add({"ebtables -D ", chain, options});
    m_texts.add({"ebtables -A ", chain, options});
}

int EtherRule::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(std::string(addCommand()));
    return queue.process();
}

bool EtherRule::operator==(const EtherRule& other) const
{
    const auto numbers = [](const EtherRule& rule) {
        return std::tie(rule.m_id, rule.m_rulePrio, rule.m_vlanId, rule.m_ipPort, rule.m_enableLogging);
    };
    return numbers(*this) == numbers(other) && m_texts.startsLike(other.m_texts, rowTexts);
}

} // namespace zol::moatkeeper
