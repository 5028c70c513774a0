// The configuration as one number, to tell whether the history accounts for all of it: the sum over its rows, so that
// whoever changes rows need not know the others.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/table_cache.hpp"
#include "schema/server/recorded_change.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace schema
{

// What a row adds; 0 for a row of a table that is none of the configuration's. Columns at their defaults do not count.
// All sums are modulo 2^64.
std::uint64_t sumOf(const ovsdb::Table& table, const ovsdb::RowValues& values);
std::uint64_t sumOf(const ovsdb::Table& table, const std::vector<tessera::Value>& values);
std::uint64_t sumOf(const ovsdb::TableCache& state);
// By how much they change the sum.
std::uint64_t sumOf(const std::vector<RecordedChange>& changes);

// As it stands in an entry of the history, and back; nothing for another text.
std::string sumText(std::uint64_t sum);
std::optional<std::uint64_t> parseSum(std::string_view text);

// What the newest entry says: its number, and the sum that the rows have if all changes are in the history. 0 and
// nothing when there is no entry.
struct NewestEntry {
    std::int32_t number = 0;
    std::optional<std::uint64_t> sum;
};
NewestEntry newestEntry(const ovsdb::TableCache& state);

// The same after these changes were made to the rows of the state and added to the history.
std::uint64_t sumAfter(const ovsdb::TableCache& state, const std::vector<RecordedChange>& changes);

} // namespace schema
