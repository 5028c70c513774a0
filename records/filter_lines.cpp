#include "records/row_lines.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace zol::moatkeeper
{

namespace
{

constexpr std::size_t longestChainName = 30;
constexpr std::uint32_t vlanIdEnd = 4096;

bool isEither(std::string_view text, std::string_view first, std::string_view second)
{
    return text == first || text == second;
}

std::string chainNameOf(const FilterRow& row)
{
    std::string name = std::to_string(row.prio);
    name.append(row.outInterface).append(row.inInterface).append(row.matchCriteria).append(row.mode);
    return name.size() <= longestChainName ? name : "FilterID" + std::to_string(row.id);
}

// Restricts a filter's jumps to one protocol. The blanks on both sides belong to the line.
std::string_view protocolFragment(std::string_view matchCriteria)
{
    if (isEither(matchCriteria, "IPv6", "ipv6"))
        return " -p 0x86dd ";
    if (isEither(matchCriteria, "IPv4", "ipv4"))
        return " -p 0x800 ";
    if (isEither(matchCriteria, "VLAN", "vlan"))
        return " -p 0x8100 ";
    return {};
}

// The two commands, -I or -D with its place, that concern the jumps for both directions between the ports.
std::string jumpLine(const std::string& command, const FilterRow& row, const std::string& chain)
{
    std::string line;
    const auto add = [&](std::string_view first, std::string_view second) {
        line.append(command).append(first).append(row.outInterface).append(second).append(row.inInterface);
        line.append(protocolFragment(row.matchCriteria)).append(" -j ").append(chain).append(";");
    };
    add(" -i ", " -o ");
    add(" -o ", " -i ");
    return line;
}

} // namespace

FilterLines linesOf(const FilterRow& row)
{
    FilterLines lines;
    const std::string chain = chainNameOf(row);
    lines.chainName = chain;

    std::string policy;
    if (row.mode == "blacklist") {
        policy = "RETURN";
    } else if (row.mode == "whitelist") {
        policy = "DROP";
    } else {
        lines.reasons.push_back(Unusable::InvalidMode);
        return lines;
    }

    lines.createChainCommand = "ebtables -N " + chain + "; ebtables -P " + chain + " " + policy;
    lines.flushChainCommand = "ebtables -F " + chain + "; ebtables -X " + chain;
    lines.insertJumpsCommand = jumpLine("ebtables -I FORWARD 1", row, chain);
    lines.deleteJumpsCommand = jumpLine("ebtables -D FORWARD", row, chain);
    return lines;
}

RowLines linesOf(const JoinedFilterRule& rule)
{
    RowLines lines;

    // The exception to the chain's policy.
    std::string_view target;
    if (rule.mode == "blacklist")
        target = "DROP";
    else if (rule.mode == "whitelist")
        target = "RETURN";
    else
        lines.reasons.push_back(Unusable::InvalidMode);

    std::string_view addMatch;
    std::string_view deleteMatch;
    if (isEither(rule.matchCriteria, "VLAN", "vlan")) {
        addMatch = deleteMatch = " -p 802_1Q --vlan-id ";
        // Only the number is checked; the text goes into the line as it is. atoi is what defines the number.
        const int vlanId = std::atoi(std::string(rule.filterMatch).c_str());
        if (static_cast<std::uint32_t>(vlanId) >= vlanIdEnd)
            lines.reasons.push_back(Unusable::InvalidVlanMatch);
    } else if (isEither(rule.matchCriteria, "MAC", "mac")) {
        addMatch = deleteMatch = " -s ";
    } else if (isEither(rule.matchCriteria, "IPv4", "ipv4")) {
        addMatch = " -p 0x800 --ip-source ";
        deleteMatch = " -p 0x800 --ip-source  ";
    } else if (isEither(rule.matchCriteria, "IPv6", "ipv6")) {
        addMatch = deleteMatch = " -p 0x86DD --ip6-source ";
    } else {
        lines.reasons.push_back(Unusable::InvalidMatchType);
    }
    if (!lines.reasons.empty())
        return lines;

    const auto line = [&](std::string_view command, std::string_view match) {
        std::string text(command);
        text.append(rule.chainName).append(match).append(rule.filterMatch).append(" -j ").append(target);
        return text;
    };
    lines.addCommand = line("ebtables -A ", addMatch);
    lines.deleteCommand = line("ebtables -D ", deleteMatch);
    return lines;
}

} // namespace zol::moatkeeper
