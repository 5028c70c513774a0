#include "tests/random/scenario.hpp"

#include <utility>

namespace randomtest
{

namespace
{

const std::vector<int> enabledValues = {1, 1, 1, 1, 1, 0, 2, -1};

} // namespace

void Tables::writeTo(fake::MemoryTables& tables) const
{
    std::vector<fake::Row> rows;
    for (const GlobalRow& row : global)
        rows.push_back(
            fake::Row().set("Id", 1).set("GlobalInputPolicy", row.input).set("GlobalForwardingPolicy", row.forward));
    tables.setRows("MoatKeeper", std::exchange(rows, {}));
    for (const RuleRow& row : rules)
        rows.push_back(fake::Row()
                           .set("Id", row.id)
                           .set("Enabled", row.enabled)
                           .set("RulePrio", row.prio)
                           .set("InInterface", row.inInterface)
                           .set("OutInterface", row.outInterface)
                           .set("SrcMAC", row.sourceMac)
                           .set("VLANID", row.vlanId)
                           .set("Ethertype", row.ethertype)
                           .set("IPSrcAddr", row.sourceAddress)
                           .set("IPProto", row.protocol)
                           .set("IPPort", row.port)
                           .set("Target", row.target)
                           .set("EnableLogging", row.logging));
    tables.setRows("MoatKeeperRuleset", std::exchange(rows, {}));
    for (const PolicyRow& row : inputPolicies)
        rows.push_back(fake::Row()
                           .set("Id", row.id)
                           .set("Enabled", row.enabled)
                           .set("Interface", row.inInterface)
                           .set("Policy", row.policy)
                           .set("EnableLogging", row.logging));
    tables.setRows("MoatKeeperInputPolicy", std::exchange(rows, {}));
    for (const PolicyRow& row : forwardPolicies)
        rows.push_back(fake::Row()
                           .set("Id", row.id)
                           .set("Enabled", row.enabled)
                           .set("InInterface", row.inInterface)
                           .set("OutInterface", row.outInterface)
                           .set("Policy", row.policy)
                           .set("EnableLogging", row.logging));
    tables.setRows("MoatKeeperForwardingPolicy", std::exchange(rows, {}));
    for (const FilterRow& row : filters)
        rows.push_back(fake::Row()
                           .set("Id", row.id)
                           .set("Enabled", row.enabled)
                           .set("Prio", row.prio)
                           .set("InInterface", row.inInterface)
                           .set("OutInterface", row.outInterface)
                           .set("MatchCriteria", row.criteria)
                           .set("Mode", row.mode));
    tables.setRows("MoatKeeperBridgeFilters", std::exchange(rows, {}));
    for (const FilterRuleRow& row : filterRules)
        rows.push_back(fake::Row()
                           .set("Id", row.id)
                           .set("Enabled", row.enabled)
                           .set("BridgeFilterID", row.filterId)
                           .set("FilterMatch", row.match));
    tables.setRows("MoatKeeperBridgeFilterRules", std::move(rows));
}

RuleRow Generator::rule()
{
    RuleRow row;
    row.id = below(4);
    row.enabled = pick(enabledValues);
    row.prio = below(5) - 1;
    row.inInterface = pick<std::string>({"eth0", "eth1", "eth2", ""});
    row.outInterface = pick<std::string>({"", "eth1"});
    row.sourceMac = pick<std::string>({"", "00:11:22:33:44:55"});
    row.vlanId = pick<int>({-1, -1, -1, 0, 100, 4094, 4095, -2});
    row.ethertype = pick<std::string>({"", "IPv4", "0x800", "IPv6", "0x86DD", "ARP", "0x86dd"});
    // The address fits the type, so that the tool takes it.
    if (row.ethertype == "IPv4" || row.ethertype == "0x800")
        row.sourceAddress = pick<std::string>({"", "10.0.0.1", "192.168.1.0/24"});
    else if (row.ethertype == "IPv6" || row.ethertype == "0x86DD")
        row.sourceAddress = pick<std::string>({"", "fe80::1"});
    row.protocol = pick<std::string>({"", "", "UDP", "TCP", "udp"});
    row.port = pick<int>({0, 80});
    row.target = pick<std::string>({"ACCEPT", "DROP", "DROP", "REJECT"});
    row.logging = below(3);
    return row;
}

PolicyRow Generator::policy()
{
    PolicyRow row;
    row.id = below(4);
    row.enabled = pick(enabledValues);
    row.inInterface = pick<std::string>({"eth0", "eth1"});
    row.outInterface = pick<std::string>({"eth2", "eth1"});
    row.policy = pick<std::string>({"ACCEPT", "DROP", "accept"});
    row.logging = below(3);
    return row;
}

FilterRow Generator::filter()
{
    FilterRow row;
    row.id = below(3);
    row.enabled = pick(enabledValues);
    row.prio = pick<int>({1, 2, 3, 2, 0, 11, -3});
    row.inInterface = pick<std::string>({"eth0", "eth1", "veryverylong0", ""});
    row.outInterface = pick<std::string>({"eth2", "eth3", "veryverylong1"});
    row.criteria = pick<std::string>({"mac", "IPv4", "vlan", "IPv6", "other"});
    row.mode = pick<std::string>({"blacklist", "whitelist", "blacklist", "Whitelist"});
    return row;
}

FilterRuleRow Generator::filterRule()
{
    FilterRuleRow row;
    row.id = below(3);
    row.enabled = pick(enabledValues);
    row.filterId = below(4);
    row.match = pick<std::string>({"00:11:22:33:44:55", "10.0.0.1", "7", "fe80::1", ""});
    return row;
}

GlobalRow Generator::global()
{
    return {pick<std::string>({"ACCEPT", "DROP", "", "drop"}), pick<std::string>({"ACCEPT", "DROP", "RETURN"})};
}

template <typename Row, typename Make>
void Generator::changeRows(std::vector<Row>& rows, int most, Make make)
{
    const int count = static_cast<int>(rows.size());
    switch (count == 0 ? 0 : below(5)) {
    case 0:
    case 1:
        if (count < most)
            rows.insert(rows.begin() + below(count + 1), make());
        break;
    case 2:
        rows.erase(rows.begin() + below(count));
        break;
    case 3:
        rows[static_cast<std::size_t>(below(count))] = make();
        break;
    default:
        std::swap(rows.front(), rows[static_cast<std::size_t>(below(count))]);
        break;
    }
}

std::string Generator::change(Tables& tables)
{
    switch (below(10)) {
    case 0:
        changeRows(tables.global, 2, [this] { return global(); });
        return "MoatKeeper";
    case 1:
    case 2:
        changeRows(tables.rules, 5, [this] { return rule(); });
        return "MoatKeeperRuleset";
    case 3:
        changeRows(tables.inputPolicies, 3, [this] { return policy(); });
        return "MoatKeeperInputPolicy";
    case 4:
        changeRows(tables.forwardPolicies, 3, [this] { return policy(); });
        return "MoatKeeperForwardingPolicy";
    case 5:
    case 6:
        changeRows(tables.filterRules, 4, [this] { return filterRule(); });
        return "MoatKeeperBridgeFilterRules";
    case 7:
        // The one column whose change alone the handler does not see.
        if (!tables.filters.empty()) {
            const int index = below(static_cast<int>(tables.filters.size()));
            tables.filters[static_cast<std::size_t>(index)].criteria = filter().criteria;
        }
        return "MoatKeeperBridgeFilters";
    default:
        changeRows(tables.filters, 4, [this] { return filter(); });
        return "MoatKeeperBridgeFilters";
    }
}

} // namespace randomtest
