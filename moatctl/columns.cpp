#include "moatctl/columns.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

namespace moatctl
{

namespace
{

using enum ValueKind;

constexpr ColumnInfo idColumn{"Id", "ID", Id, true, "Number that names the row in its table"};
constexpr ColumnInfo enabledColumn{"Enabled", "ON", Switch, false, "Whether the row is in force"};
constexpr ColumnInfo loggingColumn{"EnableLogging", "LOG", Switch, false, "Whether matching frames are logged"};

constexpr std::array globalColumns{
    ColumnInfo{"GlobalInputPolicy", "INPUT", Target, false, "Fate of frames for the device that nothing else decides"},
    ColumnInfo{"GlobalForwardingPolicy", "FORWARD", Target, false,
               "Fate of frames between two ports that nothing else decides"},
};
constexpr std::array inputPolicyColumns{
    idColumn,
    enabledColumn,
    ColumnInfo{"Interface", "IN", Interface, true, "Port that the frame arrives on"},
    ColumnInfo{"Policy", "TARGET", Target, true, "Fate of the frame"},
    loggingColumn,
};
constexpr std::array forwardingPolicyColumns{
    idColumn,
    enabledColumn,
    ColumnInfo{"InInterface", "IN", Interface, true, "Port that the frame arrives on"},
    ColumnInfo{"OutInterface", "OUT", Interface, true, "Port that the frame leaves by"},
    ColumnInfo{"Policy", "TARGET", Target, true, "Fate of the frame"},
    loggingColumn,
};
constexpr std::array ruleColumns{
    idColumn,
    enabledColumn,
    ColumnInfo{"RulePrio", "PRIORITY", RulePriority, true, "Place among the rules, the smallest number first"},
    ColumnInfo{"InInterface", "IN", Interface, true, "Port that the frame arrives on"},
    ColumnInfo{"OutInterface", "OUT", Interface, false,
               "Port that the frame leaves by; without it the rule is about frames for the device itself"},
    ColumnInfo{"DstMAC", "DST-MAC", Mac, false, "Destination MAC address"},
    ColumnInfo{"SrcMAC", "SRC-MAC", Mac, false, "Source MAC address"},
    ColumnInfo{"VLANID", "VLAN", VlanId, false, "VLAN that the frame is tagged with; -1 for any frame"},
    ColumnInfo{"Ethertype", "ETHERTYPE", Ethertype, false,
               "Protocol of the frame; with a VLAN the protocol behind the tag"},
    ColumnInfo{"IPSrcAddr", "SRC", Network, false, "Source address or network"},
    ColumnInfo{"IPDstAddr", "DST", Network, false, "Destination address or network"},
    ColumnInfo{"IPProto", "PROTO", Protocol, false, "Protocol inside IP"},
    ColumnInfo{"IPPort", "PORT", Port, false, "Destination port; 0 for any"},
    ColumnInfo{"Target", "TARGET", Target, true, "Fate of the frame"},
    loggingColumn,
};
constexpr std::array filterColumns{
    idColumn,
    enabledColumn,
    ColumnInfo{"Prio", "PRIORITY", FilterPriority, true, "Place among the filters, the smallest number first"},
    ColumnInfo{"InInterface", "PORT-A", Interface, true, "One of the two ports"},
    ColumnInfo{"OutInterface", "PORT-B", Interface, true, "The other port"},
    ColumnInfo{"MatchCriteria", "MATCH", Criteria, true, "What the filter's rules look at"},
    ColumnInfo{"Mode", "MODE", Mode, true, "Whether the filter's rules name what is kept out or what is let through"},
};
constexpr std::array filterRuleColumns{
    idColumn,
    enabledColumn,
    ColumnInfo{"BridgeFilterID", "FILTER", FilterId, true, "Id of the filter that the rule belongs to"},
    ColumnInfo{"FilterMatch", "MATCH", FilterMatch, true, "Source MAC address, IP source or VLAN, as the filter says"},
};

const std::array<TableInfo, tableCount> tables{{
    {TableId::Global, ovsdb::findTable("MoatKeeper"), "global", "Global policies", globalColumns},
    {TableId::InputPolicies, ovsdb::findTable("MoatKeeperInputPolicy"), "policy", "Input policies", inputPolicyColumns},
    {TableId::ForwardingPolicies, ovsdb::findTable("MoatKeeperForwardingPolicy"), "forward-policy",
     "Forwarding policies", forwardingPolicyColumns},
    {TableId::Rules, ovsdb::findTable("MoatKeeperRuleset"), "rule", "Rules", ruleColumns},
    {TableId::Filters, ovsdb::findTable("MoatKeeperBridgeFilters"), "filter", "Bridge filters", filterColumns},
    {TableId::FilterRules, ovsdb::findTable("MoatKeeperBridgeFilterRules"), "filter-rule", "Bridge filter rules",
     filterRuleColumns},
}};

bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

} // namespace

std::size_t TableInfo::at(std::string_view columnName) const
{
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].name == columnName)
            return i;
    }
    throw std::logic_error(std::string(name()) + " has no column " + std::string(columnName));
}

tessera::Value TableInfo::defaultOf(std::size_t column) const
{
    return table->columns[column].valueIfUnset();
}

std::span<const TableInfo> allTables()
{
    return tables;
}

const TableInfo& tableInfo(TableId id)
{
    return tables[static_cast<std::size_t>(id)];
}

const TableInfo* findTable(std::string_view nameOrWord)
{
    for (const TableInfo& table : tables) {
        if (equalIgnoringCase(table.name(), nameOrWord) || equalIgnoringCase(table.word, nameOrWord))
            return &table;
    }
    return nullptr;
}

std::string_view expectedValue(ValueKind kind)
{
    switch (kind) {
    case Id:
        return "a number from 1 to 2147483647";
    case Switch:
        return "0 or 1";
    case RulePriority:
        return "a number from -2147483648 to 2147483647 except 0";
    case FilterPriority:
        return "a number from 1 to 2147483647";
    case Interface:
        return "an interface name of at most 15 characters";
    case Mac:
        return "a MAC address such as 00:11:22:33:44:55, or ADDRESS/MASK";
    case VlanId:
        return "a VLAN id from 0 to 4094, or -1 for any frame";
    case Ethertype:
        return "IPv4, IPv6, ARP, another name known to this machine, or a number such as 0x88cc";
    case Network:
        return "an IPv4 or IPv6 address, or ADDRESS/PREFIX";
    case Protocol:
        return "TCP or UDP";
    case Port:
        return "a port from 1 to 65535, or 0 for any";
    case Target:
        return "ACCEPT or DROP";
    case Criteria:
        return "mac, ipv4, ipv6 or vlan";
    case Mode:
        return "blacklist or whitelist";
    case FilterId:
        return "the Id of a filter";
    case FilterMatch:
        return "a MAC address, an IP address or network, or a VLAN id, as the filter matches";
    }
    return "";
}

} // namespace moatctl
