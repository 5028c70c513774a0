#include "tests/random/expectation.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace randomtest
{

namespace
{

const std::set<std::string> userChains = {"UserInputRules", "UserInputPolicy", "UserForwardRules", "UserForwardPolicy"};

std::string logOption(const std::string& target, int logging)
{
    if (logging != 1)
        return "";
    return target == "ACCEPT" ? "--log --log-prefix \"Moatkeeper accepted: \" "
                              : "--log --log-prefix \"Moatkeeper denied: \" ";
}

bool isVerdict(const std::string& target)
{
    return target == "ACCEPT" || target == "DROP";
}

// The options of a rule in the chain, "" when the row makes none or the tool refuses it.
std::string optionsOf(const RuleRow& row)
{
    std::string options = "-i " + row.inInterface + " ";
    if (!row.outInterface.empty())
        options += "-o " + row.outInterface + " ";
    if (!row.sourceMac.empty())
        options += "-s " + row.sourceMac + " ";
    if (row.vlanId != -1) {
        if (row.vlanId < 0 || row.vlanId > 4094)
            return "";
        options += "-p 802_1Q --vlan-id " + std::to_string(row.vlanId) + " ";
        if (!row.ethertype.empty())
            options += "--vlan-encap " + row.ethertype + " ";
    } else if (!row.ethertype.empty()) {
        const bool ip4 = row.ethertype == "IPv4" || row.ethertype == "0x800";
        const bool ip6 = row.ethertype == "IPv6" || row.ethertype == "0x86DD";
        const std::string prefix = ip4 ? "--ip-" : "--ip6-";
        if (!row.protocol.empty() && row.protocol != "UDP" && row.protocol != "TCP")
            return "";
        options += "-p " + row.ethertype + " ";
        if (ip4 || ip6) {
            if (!row.sourceAddress.empty())
                options += prefix + "source " + row.sourceAddress + " ";
            if (!row.protocol.empty())
                options += prefix + "protocol " + (row.protocol == "UDP" ? "17 " : "6 ");
            if (row.port != 0) {
                if (row.protocol.empty())
                    return ""; // refused by the tool
                options += prefix + "destination-port " + std::to_string(row.port) + " ";
            }
        }
    }
    if (!isVerdict(row.target))
        return "";
    return options + logOption(row.target, row.logging) + "-j " + row.target;
}

std::string optionsOf(const PolicyRow& row)
{
    if (!isVerdict(row.policy))
        return "";
    return "-i " + row.inInterface + (row.outInterface.empty() ? " " : " -o " + row.outInterface + " ") +
           logOption(row.policy, row.logging) + "-j " + row.policy;
}

bool isValid(const FilterRow& filter)
{
    return filter.mode == "blacklist" || filter.mode == "whitelist";
}

std::string chainOf(const FilterRow& filter)
{
    const std::string name =
        std::to_string(filter.prio) + filter.outInterface + filter.inInterface + filter.criteria + filter.mode;
    return name.size() > 30 ? "FilterID" + std::to_string(filter.id) : name;
}

// The jump from FORWARD for one direction.
std::string jumpOf(const FilterRow& filter, bool reverse)
{
    static const std::map<std::string, std::string> protocols = {
        {"IPv4", "-p 0x800 "}, {"IPv6", "-p 0x86dd "}, {"vlan", "-p 0x8100 "}};
    const auto protocol = protocols.find(filter.criteria);
    return (reverse ? "-o " : "-i ") + filter.outInterface + (reverse ? " -i " : " -o ") + filter.inInterface + " " +
           (protocol != protocols.end() ? protocol->second : "") + "-j " + chainOf(filter);
}

// The options of a filter rule in its chain, "" when it makes none or the tool refuses it.
std::string optionsOf(const JoinedRule& rule)
{
    const std::string& match = rule.row.match;
    const std::string target = rule.mode == "blacklist" ? "DROP" : "RETURN";
    if (rule.criteria == "mac" && match.starts_with("00:"))
        return "-s " + match + " -j " + target;
    if (rule.criteria == "IPv4" && match.find(':') == std::string::npos)
        return "-p 0x800 --ip-source " + match + " -j " + target;
    if (rule.criteria == "IPv6" && match.starts_with("fe80"))
        return "-p 0x86DD --ip6-source " + match + " -j " + target;
    if (rule.criteria == "vlan" && match == "7")
        return "-p 802_1Q --vlan-id " + match + " -j " + target;
    return "";
}

// What taking a filter down needs to name.
std::vector<std::string> footprint(const std::vector<FilterRow>& filters)
{
    std::vector<std::string> print;
    for (const FilterRow& filter : filters) {
        if (isValid(filter))
            print.push_back(jumpOf(filter, false));
    }
    std::sort(print.begin(), print.end());
    return print;
}

std::vector<FilterRow> withoutCriteria(std::vector<FilterRow> filters)
{
    for (FilterRow& filter : filters)
        filter.criteria.clear();
    return filters;
}

template <typename Row>
void appendAll(Chain& chain, const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        if (std::string options = optionsOf(row); !options.empty())
            chain.rules.push_back(std::move(options));
    }
}

std::vector<PolicyRow> accepted(const std::vector<PolicyRow>& rows, bool hasOutInterface)
{
    std::vector<PolicyRow> kept;
    for (PolicyRow row : rows) {
        if (row.enabled != 1)
            continue;
        if (!hasOutInterface)
            row.outInterface.clear();
        kept.push_back(std::move(row));
    }
    return kept;
}

std::vector<RuleRow> accepted(const std::vector<RuleRow>& rows)
{
    std::vector<RuleRow> kept;
    for (RuleRow row : rows) {
        if (row.enabled == 0 || row.inInterface.empty() || row.prio == 0)
            continue;
        row.enabled = 1;
        // Behind the last row that is not of a higher priority number.
        const auto place =
            std::find_if(kept.begin(), kept.end(), [&](const RuleRow& other) { return other.prio > row.prio; });
        kept.insert(place, std::move(row));
    }
    return kept;
}

} // namespace

void Expectation::onRead(const std::string& table, const Tables& tables)
{
    const auto concerns = [&](const char* name) { return table.empty() || table == name; };
    if (concerns("MoatKeeper") && !tables.global.empty()) {
        m_inputText = tables.global.front().input;
        m_forwardText = tables.global.front().forward;
    }
    if (concerns("MoatKeeperRuleset"))
        m_rules.onRead(accepted(tables.rules));
    if (concerns("MoatKeeperInputPolicy"))
        m_inputPolicies.onRead(accepted(tables.inputPolicies, false));
    if (concerns("MoatKeeperForwardingPolicy"))
        m_forwardPolicies.onRead(accepted(tables.forwardPolicies, true));
    if (concerns("MoatKeeperBridgeFilters") || concerns("MoatKeeperBridgeFilterRules"))
        readFilters(tables);
}

void Expectation::readFilters(const Tables& tables)
{
    FilterState state;
    for (FilterRow row : tables.filters) {
        if (row.enabled == 0 || row.prio == 0 || row.inInterface.empty() || row.outInterface.empty() ||
            row.criteria.empty() || row.mode.empty())
            continue;
        row.enabled = 1;
        if (isValid(row))
            m_chainsEverRead.insert(chainOf(row));
        const auto place = std::find_if(state.filters.begin(), state.filters.end(),
                                        [&](const FilterRow& other) { return other.prio < row.prio; });
        state.filters.insert(place, std::move(row));
    }
    for (FilterRuleRow row : tables.filterRules) {
        const auto filter = std::find_if(state.filters.begin(), state.filters.end(),
                                         [&](const FilterRow& other) { return other.id == row.filterId; });
        if (row.enabled == 0 || row.match.empty() || filter == state.filters.end() || !isValid(*filter))
            continue;
        row.enabled = 1;
        row.filterId = 0; // what counts is what the rule takes from its filter
        state.rules.push_back({std::move(row), filter->mode, chainOf(*filter), filter->criteria});
    }
    m_filtersBefore = std::exchange(m_filters, std::move(state));
    m_filtersDiffer = withoutCriteria(m_filters.filters) != withoutCriteria(m_filtersBefore.filters) ||
                      m_filters.rules != m_filtersBefore.rules;
    ++m_filterReadsSinceCommit;
}

void Expectation::commitFilters()
{
    if (m_filtersDiffer) {
        if (m_filterReadsSinceCommit > 0 && footprint(m_filtersBefore.filters) != footprint(m_filtersApplied.filters)) {
            m_leftBehind = true;
            if (!m_filtersStale && m_filterReadsSinceCommit < 2)
                m_unexplained = "filters left behind after a single read";
        }
        m_filtersApplied = m_filters;
        m_filtersStale = false;
    } else if (m_filters != m_filtersApplied) {
        const bool criteriaOnly = withoutCriteria(m_filters.filters) == withoutCriteria(m_filtersApplied.filters) &&
                                  m_filters.rules == m_filtersApplied.rules;
        if (!m_filtersStale && m_filterReadsSinceCommit < 2 && !criteriaOnly)
            m_unexplained = "filters stay as they were after a single read";
        m_filtersStale = true;
        ++(criteriaOnly ? m_counts.unseenCriteria : m_counts.cancelled);
    } else {
        m_filtersStale = false;
    }
    m_filtersDiffer = false;
    m_filterReadsSinceCommit = 0;
}

void Expectation::onCommit()
{
    ++m_counts.commits;
    m_committed = true;
    const auto commitList = [this](auto& group) {
        if (group.differs)
            group.applied = group.read;
        const bool stale = group.applied != group.read;
        if (stale && !group.stale && group.readsSinceCommit < 2)
            m_unexplained = "a group stays as it was after a single read";
        m_counts.cancelled += stale ? 1 : 0;
        group.stale = stale;
        group.differs = false;
        group.readsSinceCommit = 0;
    };
    commitList(m_rules);
    commitList(m_inputPolicies);
    commitList(m_forwardPolicies);
    commitFilters();
    // Another text than these two the tool refuses; the policy stays.
    if (isVerdict(m_inputText))
        m_input.policy = m_inputText;
    if (isVerdict(m_forwardText))
        m_forward.policy = m_forwardText;
}

std::map<std::string, Chain> Expectation::expectedChains() const
{
    std::map<std::string, Chain> chains = {{"OUTPUT", {}}};
    chains["INPUT"] = {m_input.policy, {"-j UserInputRules", "-j UserInputPolicy"}};
    chains["FORWARD"] = {m_forward.policy, {}};
    for (const std::string& name : userChains)
        chains[name].policy = "RETURN";
    for (const RuleRow& row : m_rules.applied)
        appendAll(chains[row.outInterface.empty() ? "UserInputRules" : "UserForwardRules"], std::vector{row});
    appendAll(chains["UserInputPolicy"], m_inputPolicies.applied);
    appendAll(chains["UserForwardPolicy"], m_forwardPolicies.applied);

    // The filter of the smallest priority is asked first, its opposite direction before the other.
    std::vector<std::string>& forward = chains["FORWARD"].rules;
    for (auto filter = m_filtersApplied.filters.rbegin(); filter != m_filtersApplied.filters.rend(); ++filter) {
        const std::string name = chainOf(*filter);
        if (!isValid(*filter) || name.starts_with('-')) // the tool refuses such a name
            continue;
        if (name.size() <= 28) { // the tool refuses jumps to longer names
            forward.push_back(jumpOf(*filter, true));
            forward.push_back(jumpOf(*filter, false));
        }
        // Filters that share a name share the chain: the one set up last gives the policy.
        if (!chains.contains(name))
            chains[name].policy = filter->mode == "blacklist" ? "RETURN" : "DROP";
    }
    for (const JoinedRule& rule : m_filtersApplied.rules) {
        if (!rule.chain.starts_with('-'))
            appendAll(chains[rule.chain], std::vector{rule});
    }
    forward.insert(forward.end(), {"-j UserForwardRules", "-j UserForwardPolicy"});
    return chains;
}

std::string Expectation::check(const BridgeModel& model)
{
    if (!m_unexplained.empty())
        return m_unexplained;
    const std::map<std::string, Chain> expected = expectedChains();
    if (!m_leftBehind) {
        ++m_counts.exact;
        // Two jumps a filter beside the two of the user chains; seven chains are not of filters.
        if (expected.at("FORWARD").rules.size() / 2 - 1 > expected.size() - 7)
            ++m_counts.sharedChain;
        return expected == model.chains() ? "" : "the tables are not what the rows ask for";
    }
    ++m_counts.leftBehind;
    // The rest of the tables is right all the same, and every filter that was applied has its chain.
    for (const auto& [name, chain] : expected) {
        const auto found = model.chains().find(name);
        if (found == model.chains().end())
            return "chain " + name + " is missing";
        const bool byFilters = name != "INPUT" && name != "OUTPUT" && !userChains.contains(name);
        if (!byFilters && (found->second.policy != chain.policy || (name != "FORWARD" && found->second != chain)))
            return "chain " + name + " is not what the rows ask for";
    }
    for (const auto& [name, chain] : model.chains()) {
        if (!expected.contains(name) && !m_chainsEverRead.contains(name))
            return "chain " + name + " belongs to no filter";
    }
    return "";
}

std::string Expectation::checkEnd(const BridgeModel& model) const
{
    // Taken down is what was read last.
    const bool clean =
        !m_leftBehind && (!m_committed || footprint(m_filters.filters) == footprint(m_filtersApplied.filters));
    for (const auto& [name, chain] : model.chains()) {
        const bool builtIn = name == "INPUT" || name == "FORWARD" || name == "OUTPUT";
        if (builtIn && chain.policy != "ACCEPT")
            return "policy of " + name + " stays " + chain.policy;
        if (clean ? (!builtIn || !chain.rules.empty()) : userChains.contains(name))
            return "chain " + name + " is left";
    }
    return "";
}

} // namespace randomtest
