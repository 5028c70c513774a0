#include "records/filters.hpp"

#include "platform/action_queue.hpp"

#include <cstddef>
#include <cstdlib>
#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "filters";
constexpr std::size_t longestChainName = 30;
constexpr std::uint32_t vlanIdEnd = 4096;

bool isEither(const std::string& text, const char* first, const char* second)
{
    return text == first || text == second;
}

// Restricts a filter's jumps to one protocol. The blanks on both sides belong to the line.
const char* protocolFragment(const std::string& matchCriteria)
{
    if (isEither(matchCriteria, "IPv6", "ipv6"))
        return " -p 0x86dd ";
    if (isEither(matchCriteria, "IPv4", "ipv4"))
        return " -p 0x800 ";
    if (isEither(matchCriteria, "VLAN", "vlan"))
        return " -p 0x8100 ";
    return "";
}

} // namespace

BridgeFilter::BridgeFilter(std::int32_t id, std::string mode, std::string inInterface, std::string outInterface,
                           std::string matchCriteria, std::int32_t prio)
    : m_id(id),
      m_outInterface(std::move(outInterface)),
      m_inInterface(std::move(inInterface)),
      m_matchCriteria(std::move(matchCriteria)),
      m_mode(std::move(mode)),
      m_prio(prio),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void BridgeFilter::AssembleSystemCalls()
{
    std::string policy;
    if (m_mode == "blacklist") {
        policy = "RETURN";
    } else if (m_mode == "whitelist") {
        policy = "DROP";
    } else {
        ZOL_Sysloglevel_warning(m_logModule, label, 95,
                                VAStr("%s: Filter ID %ld has invalid mode: %s", "AssembleSystemCalls",
                                      static_cast<long>(m_id), m_mode.c_str()));
    }

    m_chainName = std::to_string(m_prio) + m_outInterface + m_inInterface + m_matchCriteria + m_mode;
    if (m_chainName.size() > longestChainName)
        m_chainName = "FilterID" + std::to_string(m_id);

    if (policy.empty()) {
        ZOL_Sysloglevel_warning(
            m_logModule, label, 136,
            VAStr("%s: Filter ID %ld is invalid and will be ignored", "AssembleSystemCalls", static_cast<long>(m_id)));
        return;
    }

    m_createChainCommand = "ebtables -N " + m_chainName + "; ebtables -P " + m_chainName + " " + policy;
    m_flushChainCommand = "ebtables -F " + m_chainName + "; ebtables -X " + m_chainName;

    // Both directions between the two ports.
    const std::string jump = protocolFragment(m_matchCriteria) + (" -j " + m_chainName) + ";";
    const std::string there = " -i " + m_outInterface + " -o " + m_inInterface + jump;
    const std::string back = " -o " + m_outInterface + " -i " + m_inInterface + jump;
    m_insertJumpsCommand = "ebtables -I FORWARD 1" + there + "ebtables -I FORWARD 1" + back;
    m_deleteJumpsCommand = "ebtables -D FORWARD" + there + "ebtables -D FORWARD" + back;
    m_valid = true;
}

int BridgeFilter::ApplySetUpCommands(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_createChainCommand);
    queue.addCommand(m_insertJumpsCommand);
    return queue.process();
}

int BridgeFilter::ApplyTearDownCommands(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_deleteJumpsCommand);
    queue.addCommand(m_flushChainCommand);
    return queue.process();
}

bool BridgeFilter::operator==(const BridgeFilter& other) const
{
    const auto comparedValues = [](const BridgeFilter& filter) {
        return std::tie(filter.m_id, filter.m_prio, filter.m_outInterface, filter.m_inInterface, filter.m_mode);
    };
    return comparedValues(*this) == comparedValues(other);
}

BridgeFilterRule::BridgeFilterRule(std::int32_t id, std::string mode, std::string chainName, std::string matchCriteria,
                                   std::string filterMatch)
    : m_id(id),
      m_mode(std::move(mode)),
      m_chainName(std::move(chainName)),
      m_matchCriteria(std::move(matchCriteria)),
      m_filterMatch(std::move(filterMatch)),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void BridgeFilterRule::AssembleSystemCalls()
{
    bool invalid = false;

    // The exception to the chain's policy.
    std::string target;
    if (m_mode == "blacklist")
        target = "DROP";
    else if (m_mode == "whitelist")
        target = "RETURN";
    else
        invalid = true;

    std::string addMatch;
    std::string deleteMatch;
    if (isEither(m_matchCriteria, "VLAN", "vlan")) {
        // Only the number is checked; the text goes into the line as it is. atoi is what defines the number.
        const int vlanId = std::atoi(m_filterMatch.c_str()); // NOLINT(cert-err34-c)
        if (static_cast<std::uint32_t>(vlanId) < vlanIdEnd) {
            addMatch = deleteMatch = " -p 802_1Q --vlan-id ";
        } else {
            ZOL_Sysloglevel_warning(m_logModule, label, 233,
                                    VAStr("%s: Filter rule ID %ld has invalid VLAN ID criteria: %s",
                                          "AssembleSystemCalls", static_cast<long>(m_id), m_filterMatch.c_str()));
            invalid = true;
        }
    } else if (isEither(m_matchCriteria, "MAC", "mac")) {
        addMatch = deleteMatch = " -s ";
    } else if (isEither(m_matchCriteria, "IPv4", "ipv4")) {
        addMatch = " -p 0x800 --ip-source ";
        deleteMatch = " -p 0x800 --ip-source  ";
    } else if (isEither(m_matchCriteria, "IPv6", "ipv6")) {
        addMatch = deleteMatch = " -p 0x86DD --ip6-source ";
    } else {
        ZOL_Sysloglevel_warning(m_logModule, label, 246,
                                VAStr("%s: Filter rule ID %ld has invalid match type: %s", "AssembleSystemCalls",
                                      static_cast<long>(m_id), m_matchCriteria.c_str()));
        invalid = true;
    }

    if (invalid) {
        ZOL_Sysloglevel_warning(
            m_logModule, label, 255,
            VAStr("%s: Filter ID %ld is invalid and will be ignored", "AssembleSystemCalls", static_cast<long>(m_id)));
        return;
    }

    m_addCommand = "ebtables -A " + m_chainName + addMatch + m_filterMatch + " -j " + target;
    m_deleteCommand = "ebtables -D " + m_chainName + deleteMatch + m_filterMatch + " -j " + target;
}

int BridgeFilterRule::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_addCommand);
    return queue.process();
}

bool BridgeFilterRule::operator==(const BridgeFilterRule& other) const
{
    const auto comparedValues = [](const BridgeFilterRule& rule) {
        return std::tie(rule.m_id, rule.m_mode, rule.m_chainName, rule.m_matchCriteria, rule.m_filterMatch);
    };
    return comparedValues(*this) == comparedValues(other);
}

} // namespace zol::moatkeeper
