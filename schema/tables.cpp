#include "schema/tables.hpp"

#include <array>
#include <stdexcept>
#include <string>

namespace schema
{

namespace
{

using enum ValueKind;

constexpr Column idColumn{"Id", "ID", Id, true, "Number that identifies the row in its table"};
constexpr Column enabledColumn{"Enabled", "ON", Switch, false, "Whether the row is enabled", true, 1};
constexpr Column loggingColumn{"EnableLogging", "LOG", Switch, false, "Whether matching frames are logged"};

constexpr std::array globalColumns{
    Column{"GlobalInputPolicy", "INPUT", Target, false, "What happens to frames for the device if nothing else decides",
           true, 0, "ACCEPT"},
    Column{"GlobalForwardingPolicy", "FORWARD", Target, false,
           "What happens to frames between two ports if nothing else decides", true, 0, "ACCEPT"},
};
constexpr std::array inputPolicyColumns{
    idColumn,
    enabledColumn,
    Column{"Interface", "IN", Interface, true, "Port that the frame arrives on"},
    Column{"Policy", "TARGET", Target, true, "What happens to the frame"},
    loggingColumn,
};
constexpr std::array forwardingPolicyColumns{
    idColumn,
    enabledColumn,
    Column{"InInterface", "IN", Interface, true, "Port that the frame arrives on"},
    Column{"OutInterface", "OUT", Interface, true, "Port that the frame leaves by"},
    Column{"Policy", "TARGET", Target, true, "What happens to the frame"},
    loggingColumn,
};
constexpr std::array ruleColumns{
    idColumn,
    enabledColumn,
    Column{"RulePrio", "PRIORITY", RulePriority, true, "Place among the rules; the smallest number comes first"},
    Column{"InInterface", "IN", Interface, true, "Port that the frame arrives on"},
    Column{"OutInterface", "OUT", Interface, false,
           "Port that the frame leaves by; without it the rule applies to frames for the device itself"},
    Column{"DstMAC", "DST-MAC", Mac, false, "Destination MAC address"},
    Column{"SrcMAC", "SRC-MAC", Mac, false, "Source MAC address"},
    Column{"VLANID", "VLAN", VlanId, false, "VLAN in the frame's tag", true, -1},
    Column{"Ethertype", "ETHERTYPE", Ethertype, false,
           "Protocol of the frame; with a VLAN, the protocol after the tag"},
    Column{"IPSrcAddr", "SRC", Network, false, "Source address or network"},
    Column{"IPDstAddr", "DST", Network, false, "Destination address or network"},
    Column{"IPProto", "PROTO", Protocol, false, "Protocol inside IP"},
    Column{"IPPort", "PORT", Port, false, "Destination port"},
    Column{"Target", "TARGET", Target, true, "What happens to the frame"},
    loggingColumn,
};
constexpr std::array filterColumns{
    idColumn,
    enabledColumn,
    Column{"Prio", "PRIORITY", FilterPriority, true, "Place among the filters; the smallest number comes first"},
    Column{"InInterface", "PORT-A", Interface, true, "One of the two ports"},
    Column{"OutInterface", "PORT-B", Interface, true, "The other port"},
    Column{"MatchCriteria", "MATCH", Criteria, true, "What the filter's rules look at"},
    Column{"Mode", "MODE", Mode, true, "Whether the filter's rules say what is kept out or what may pass"},
};
constexpr std::array filterRuleColumns{
    idColumn,
    enabledColumn,
    Column{"BridgeFilterID", "FILTER", FilterId, true, "Id of the filter that the rule belongs to"},
    Column{"FilterMatch", "MATCH", FilterMatch, true, "Source MAC address, IP source or VLAN, as the filter says"},
};

constexpr std::array<Table, tableCount> tables{{
    {TableId::Global, "MoatKeeper", "global", "Global policies", globalColumns},
    {TableId::InputPolicies, "MoatKeeperInputPolicy", "policy", "Input policies", inputPolicyColumns},
    {TableId::ForwardingPolicies, "MoatKeeperForwardingPolicy", "forward-policy", "Forwarding policies",
     forwardingPolicyColumns},
    {TableId::Rules, "MoatKeeperRuleset", "rule", "Rules", ruleColumns},
    {TableId::Filters, "MoatKeeperBridgeFilters", "filter", "Bridge filters", filterColumns},
    {TableId::FilterRules, "MoatKeeperBridgeFilterRules", "filter-rule", "Bridge filter rules", filterRuleColumns},
}};

} // namespace

tessera::Value Column::defaultValue() const
{
    return isText() ? tessera::Value(std::string(textIfUnset)) : tessera::Value(numberIfUnset);
}

std::optional<std::size_t> Table::find(std::string_view columnName) const
{
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].name == columnName)
            return i;
    }
    return std::nullopt;
}

std::size_t Table::at(std::string_view columnName) const
{
    if (const auto index = find(columnName))
        return *index;
    throw std::logic_error(std::string(name) + " has no column " + std::string(columnName));
}

std::span<const Table> allTables()
{
    return tables;
}

const Table& table(TableId id)
{
    return tables[static_cast<std::size_t>(id)];
}

const Table* findTable(std::string_view name)
{
    for (const Table& table : tables) {
        if (table.name == name)
            return &table;
    }
    return nullptr;
}

} // namespace schema
