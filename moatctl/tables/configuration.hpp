// The whole configuration as a plain value: six tables of rows, whether from the server or from a file.
#pragma once

#include "moatctl/tables/acknowledged.hpp"
#include "moatctl/tables/table_names.hpp"
#include "ovsdb/table_cache.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// A row has a value for every column, in the order of its table's columns.
struct Row {
    explicit Row(const schema::Table& tableOfRow); // every column at its default

    const schema::Table* table;
    std::vector<tessera::Value> values;
    std::optional<ovsdb::Uuid> uuid;  // from the server only
    std::uint32_t line = 0;           // from a file only: where the row begins, from 1
    std::vector<std::uint32_t> lines; // from a file only: where each column stands, 0 where it is left out

    // By column name; the column must exist and be of that kind.
    std::int32_t integer(std::string_view column) const { return value(column).getInteger(); }
    const std::string& text(std::string_view column) const { return value(column).getText(); }
    const tessera::Value& value(std::string_view column) const { return values[table->at(column)]; }
    void set(std::string_view column, std::int32_t number) { values[table->at(column)] = tessera::Value(number); }
    void set(std::string_view column, std::string text) { values[table->at(column)] = tessera::Value(std::move(text)); }

    // 0 for the table without Ids.
    std::int32_t id() const { return table->hasIds() ? values.front().getInteger() : 0; }
    // The line of a column's value, else of the row, else 0.
    std::uint32_t lineOf(std::size_t column) const;

    // Same table and same values; where they come from does not count.
    bool operator==(const Row& other) const { return table == other.table && values == other.values; }
};

class Configuration
{
public:
    std::string file; // where it was read from; empty for the server

    // Beside the rows; equality does not look at them.
    std::map<Acknowledged, ovsdb::Uuid> acknowledged; // the server's name of each, where it comes from there
    std::map<TableId, ovsdb::Row> usedIds;            // the rows in which the server remembers the largest Ids

    // By ascending Id.
    const std::vector<Row>& rows(TableId table) const { return m_tables[static_cast<std::size_t>(table)]; }
    // Valid until rows are added or removed; the Id must not be changed.
    const Row* find(TableId table, std::int32_t id) const;
    Row* find(TableId table, std::int32_t id);
    // False, and nothing happens, when there is a row of that Id.
    bool add(Row row);
    bool remove(TableId table, std::int32_t id);
    void clear(TableId table) { m_tables[static_cast<std::size_t>(table)].clear(); }

    // One more than the largest Id that the table ever had here, whether the row is still there or not: an Id that
    // somebody has written down never comes to mean another row. 0 when there is no larger one.
    std::int32_t nextId(TableId table) const;
    // The table has had this Id, as far as is known from elsewhere.
    void rememberId(TableId table, std::int32_t id);
    std::int32_t largestId(TableId table) const { return m_largestIds[static_cast<std::size_t>(table)]; }

    // Same rows.
    bool operator==(const Configuration& other) const { return m_tables == other.m_tables; }

private:
    std::array<std::vector<Row>, schema::tableCount> m_tables;
    std::array<std::int32_t, schema::tableCount> m_largestIds{};
};

// The row in words: "MoatKeeperRuleset Id 5".
std::string nameOf(const Row& row);

// A value as text, as it stands in the table.
std::string toText(const tessera::Value& value);

} // namespace moatctl
