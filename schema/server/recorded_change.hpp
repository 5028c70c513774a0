// What an entry of the history says of a row, as JSON text, and the way back.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/operations.hpp"
#include "ovsdb/row.hpp"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace schema
{

// A row of a table of the configuration, or an acknowledged warning: new (no before), gone (no after) or different.
struct RecordedChange {
    const ovsdb::Table* table;                         // of serverDatabase()
    std::optional<std::vector<tessera::Value>> before; // a value for each column of the table
    std::optional<std::vector<tessera::Value>> after;

    bool operator==(const RecordedChange&) const = default;
};

// [{"table": NAME, "before": {COLUMN: VALUE, ...}, "after": {...}}, ...]; columns at their defaults are left out.
std::string toText(const std::vector<RecordedChange>& changes);
// Throws ovsdb::Error when the text, which anybody may have written, is not such a list.
std::vector<RecordedChange> parseRecordedChanges(std::string_view text);

// Puts every row back as it was before, whatever has become of it since.
std::vector<ovsdb::Json> operationsBack(const std::vector<RecordedChange>& changes);

// The table's rows as these operations would leave them, in their order; new ones without a UUID.
std::vector<ovsdb::Row> rowsBack(const std::vector<RecordedChange>& changes, const ovsdb::Table& table,
                                 std::span<const ovsdb::Row> rows);

} // namespace schema
