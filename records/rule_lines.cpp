#include "records/row_lines.hpp"

namespace zol::moatkeeper
{

namespace
{

constexpr std::string_view append = "ebtables -A ";
constexpr std::int32_t noVlan = -1;
constexpr std::uint32_t vlanIdEnd = 4095; // the last id is reserved
constexpr std::size_t lineRoom = 256;     // most rules fit

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

RowLines linesOf(const RuleRow& row)
{
    RowLines lines;
    std::string line;
    line.reserve(lineRoom);
    const auto add = [&](std::string_view option, std::string_view value) { line.append(option).append(value); };
    const auto addIfSet = [&](std::string_view option, std::string_view value) {
        if (!value.empty())
            add(option, value);
    };

    add(append, row.outInterface.empty() ? "UserInputRules" : "UserForwardRules");
    add(" -i ", row.inInterface);
    addIfSet(" -o ", row.outInterface);
    addIfSet(" -d ", row.dstMAC);
    addIfSet(" -s ", row.srcMAC);

    if (row.vlanId != noVlan) {
        // A negative id is huge as an unsigned number.
        if (static_cast<std::uint32_t>(row.vlanId) >= vlanIdEnd)
            lines.reasons.push_back(Unusable::InvalidVlanId);
        add(" -p 802_1Q --vlan-id ", std::to_string(row.vlanId));
        addIfSet(" --vlan-encap ", row.ethertype);
    } else if (!row.ethertype.empty()) {
        add(" -p ", row.ethertype);
        const std::string_view prefix = ipOptionPrefix(row.ethertype);
        const auto addIp = [&](std::string_view option, std::string_view value) {
            if (!prefix.empty() && !value.empty())
                line.append(prefix).append(option).append(value);
        };
        addIp("-source ", row.ipSrcAddr);
        addIp("-destination ", row.ipDstAddr);
        // The protocol is looked at whatever the ethertype is, so that a bad name is reported in any case.
        if (row.ipProto == "UDP")
            addIp("-protocol ", "17");
        else if (row.ipProto == "TCP")
            addIp("-protocol ", "6");
        else if (!row.ipProto.empty())
            lines.reasons.push_back(Unusable::UnknownProtocol);
        if (row.ipPort != 0)
            addIp("-destination-port ", std::to_string(row.ipPort));
    }

    std::string_view logPrefix;
    if (row.target == "ACCEPT")
        logPrefix = "\"Moatkeeper accepted: \"";
    else if (row.target == "DROP")
        logPrefix = "\"Moatkeeper denied: \"";
    else
        lines.reasons.push_back(Unusable::InvalidTarget);
    if (!lines.reasons.empty())
        return lines;

    if (row.enableLogging == 1)
        add(" --log --log-prefix ", logPrefix);
    add(" -j ", row.target);

    lines.addCommand = line;
    lines.deleteCommand = line.replace(0, append.size(), "ebtables -D ");
    return lines;
}

} // namespace zol::moatkeeper
