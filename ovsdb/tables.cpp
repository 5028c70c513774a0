#include "ovsdb/tables.hpp"

#include <array>
#include <string>

namespace ovsdb
{

namespace
{

constexpr Column integer(std::string_view name)
{
    return {.name = name, .kind = ColumnKind::Integer};
}
constexpr Column text(std::string_view name)
{
    return {.name = name, .kind = ColumnKind::Text};
}
constexpr Column optionalInteger(std::string_view name, std::int32_t ifUnset)
{
    return {.name = name, .kind = ColumnKind::Integer, .optional = true, .integerIfUnset = ifUnset};
}
constexpr Column optionalText(std::string_view name, std::string_view ifUnset)
{
    return {.name = name, .kind = ColumnKind::Text, .optional = true, .textIfUnset = ifUnset};
}

constexpr std::array mainColumns{
    optionalText("GlobalInputPolicy", "ACCEPT"),
    optionalText("GlobalForwardingPolicy", "ACCEPT"),
};
constexpr std::array inputPolicyColumns{
    integer("Id"), optionalInteger("Enabled", 1), text("Interface"), text("Policy"), integer("EnableLogging"),
};
constexpr std::array forwardingPolicyColumns{
    integer("Id"),  optionalInteger("Enabled", 1), text("InInterface"), text("OutInterface"),
    text("Policy"), integer("EnableLogging"),
};
constexpr std::array rulesetColumns{
    integer("Id"),
    optionalInteger("Enabled", 1),
    integer("RulePrio"),
    text("InInterface"),
    text("OutInterface"),
    text("DstMAC"),
    text("SrcMAC"),
    optionalInteger("VLANID", -1),
    text("Ethertype"),
    text("IPSrcAddr"),
    text("IPDstAddr"),
    text("IPProto"),
    integer("IPPort"),
    text("Target"),
    integer("EnableLogging"),
};
constexpr std::array filterColumns{
    integer("Id"),        optionalInteger("Enabled", 1), integer("Prio"), text("InInterface"),
    text("OutInterface"), text("MatchCriteria"),         text("Mode"),
};
constexpr std::array filterRuleColumns{
    integer("Id"),
    optionalInteger("Enabled", 1),
    integer("BridgeFilterID"),
    text("FilterMatch"),
};

constexpr std::array<Table, 6> tables{{
    {"MoatKeeper", mainColumns},
    {"MoatKeeperInputPolicy", inputPolicyColumns},
    {"MoatKeeperForwardingPolicy", forwardingPolicyColumns},
    {"MoatKeeperRuleset", rulesetColumns},
    {"MoatKeeperBridgeFilters", filterColumns},
    {"MoatKeeperBridgeFilterRules", filterRuleColumns},
}};

} // namespace

tessera::Value Column::valueIfUnset() const
{
    return kind == ColumnKind::Integer ? tessera::Value(integerIfUnset) : tessera::Value(std::string(textIfUnset));
}

std::optional<std::size_t> Table::find(std::string_view columnName) const
{
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].name == columnName)
            return i;
    }
    return std::nullopt;
}

std::span<const Table> allTables()
{
    return tables;
}

const Table* findTable(std::string_view name)
{
    for (const Table& table : tables) {
        if (table.name == name)
            return &table;
    }
    return nullptr;
}

} // namespace ovsdb
