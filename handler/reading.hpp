// What the handler's readers share: the names of their tables, a walk over the rows, and the comparison with what was
// read before.
#pragma once

#include "handler/debug_mode.hpp"
#include "handler/moatkeeper.hpp"
#include "platform/config_reader.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace zol::moatkeeper
{

inline constexpr const char* label = "moatkeeper";

inline const std::string mainTable = "MoatKeeper";
inline const std::string inputPolicyTable = "MoatKeeperInputPolicy";
inline const std::string forwardingPolicyTable = "MoatKeeperForwardingPolicy";
inline const std::string rulesetTable = "MoatKeeperRuleset";
inline const std::string filtersTable = "MoatKeeperBridgeFilters";
inline const std::string filterRulesTable = "MoatKeeperBridgeFilterRules";

// The row that was read, as rows_from_values.hpp takes it. Its texts live as long as the values stay as they are.
struct RowRead {
    const tessera::ValueList& values;

    std::int32_t integer(std::string_view column) const { return values.getValue(column).getInteger(); }
    const std::string& text(std::string_view column) const { return values.getValue(column).getText(); }
};

// A source that cannot deliver the table leaves the count at 0.
inline std::uint32_t rowCount(cfg::IConfigReader& source, const std::string& tableName)
{
    std::uint32_t count = 0;
    source.getRowCount(tableName, count);
    return count;
}

// Calls take(RowRead) for one row after the other.
template <typename Take>
void readRows(cfg::IConfigReader& source, const std::string& tableName, const Take& take)
{
    tessera::ValueList values;
    tessera::NameList names;
    const std::uint32_t count = rowCount(source, tableName);
    for (std::uint32_t row = 0; row < count; ++row) {
        values.clear();
        source.readRow(tableName, row, names, values);
        take(RowRead{values});
    }
}

template <typename Records>
bool moatkeeper::RecordsDiffer(const Records& current, Records previous, const char* equalName, int equalLine,
                               const char* changedName, int changedLine) const
{
    if (current.size() != previous.size())
        return true;

    bool changed = false;
    for (const auto& record : current) {
        if (record != previous.front()) {
            changed = true;
            if (g_debugMode)
                LogInfo(changedLine, VAStr("%s ID %d has changed", changedName, record.id()));
        } else if (g_debugMode) {
            LogInfo(equalLine, VAStr("%s ID %d is equal", equalName, record.id()));
        }
        previous.pop_front(); // now that it is at hand: a long list is walked once, and not once more to free it
    }
    return changed;
}

} // namespace zol::moatkeeper
