// Configuration tables in memory, as a data source for a handler.
#pragma once

#include "platform/config_reader.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fake
{

// One row: columns in the order given. A column that is left out is missing for the reader as well.
class Row
{
public:
    Row() = default;

    // Sets a column; a second value for the same column replaces the first.
    Row& set(std::string_view column, std::int32_t integer) { return set(column, tessera::Value(integer)); }
    Row& set(std::string_view column, std::string text) { return set(column, tessera::Value(std::move(text))); }
    Row& set(std::string_view column, const char* text) { return set(column, std::string(text)); }
    Row& set(std::string_view column, tessera::Value value);

    const tessera::ValueList& values() const { return m_values; }

private:
    tessera::ValueList m_values;
};

// Rows are delivered in the order in which they stand in the table, whatever their "Id". One thread.
//
// The two hooks run before an answer is given, with the table's name (and row index): an exception that one throws
// reaches the reader, and a status that is not ok is returned in place of an answer. Empty hooks are not called.
class MemoryTables : public zol::cfg::IConfigReader
{
public:
    // Replaces a table's rows; the table exists from then on, empty or not.
    void setRows(const std::string& tableName, std::vector<Row> rows);

    // Adds a row at the end, making the table if need be.
    void addRow(const std::string& tableName, Row row);

    // The table is unknown from then on.
    void removeTable(const std::string& tableName);

    // Null when the table is unknown; valid until the tables change.
    const std::vector<Row>* rows(const std::string& tableName) const;

    zol::cfg::ConfigStatus getRowCount(const std::string& tableName, std::uint32_t& rowCount) override;
    zol::cfg::ConfigStatus readRow(const std::string& tableName, std::uint32_t rowIndex, tessera::NameList& names,
                                   tessera::ValueList& values) override;

    std::function<zol::cfg::ConfigStatus(const std::string& tableName)> onGetRowCount;
    std::function<zol::cfg::ConfigStatus(const std::string& tableName, std::uint32_t rowIndex)> onReadRow;

private:
    std::map<std::string, std::vector<Row>> m_tables;
};

} // namespace fake
