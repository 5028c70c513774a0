#include "schema/server/recorded_change.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/json.hpp"
#include "schema/server/database.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

namespace schema
{

namespace
{

using Values = std::vector<tessera::Value>;
using ovsdb::Json;

Json rowOf(const ovsdb::Table& table, const Values& values)
{
    Json::Object row;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const tessera::Value& value = values[i];
        if (value != table.columns[i].ifUnset)
            row.emplace_back(table.columns[i].name,
                             value.isText() ? Json(value.getText()) : Json(std::int64_t{value.getInteger()}));
    }
    return row;
}

[[noreturn]] void refuse(const std::string& what)
{
    throw ovsdb::ProtocolError("the history is not as it should be: " + what);
}

tessera::Value valueOf(const ovsdb::Column& column, const Json& value)
{
    const std::string* text = value.asText();
    if (column.kind == ovsdb::ColumnKind::Text && text != nullptr)
        return tessera::Value(*text);
    const auto number = value.asInteger();
    using Limits = std::numeric_limits<std::int32_t>;
    if (column.kind == ovsdb::ColumnKind::Integer && number && *number >= Limits::min() && *number <= Limits::max())
        return tessera::Value(static_cast<std::int32_t>(*number));
    refuse("column " + column.name + " holds " + value.kindName());
}

std::optional<Values> valuesOf(const ovsdb::Table& table, const Json* row)
{
    if (row == nullptr)
        return std::nullopt;
    if (row->asObject() == nullptr)
        refuse("a row of " + table.name + " is " + row->kindName() + ", expected an object");
    Values values;
    for (const ovsdb::Column& column : table.columns)
        values.push_back(column.ifUnset);
    for (const auto& [name, value] : *row->asObject()) {
        const auto column = table.find(name);
        if (!column)
            refuse(table.name + " has no column \"" + name.substr(0, 64) + '"');
        values[*column] = valueOf(table.columns[*column], value);
    }
    return values;
}

// The columns that tell a row from the others of its table: its Id, nothing where there is one row at most, or, where
// rows are no more than a fact each, all.
ovsdb::ColumnValues keyOf(const ovsdb::Table& table, const Values& values)
{
    if (const auto id = table.find("Id"))
        return {{"Id", values[*id]}};
    ovsdb::ColumnValues key;
    if (table.name == acknowledgedTable) {
        for (std::size_t i = 0; i < values.size(); ++i)
            key.emplace_back(table.columns[i].name, values[i]);
    }
    return key;
}

} // namespace

std::string toText(const std::vector<RecordedChange>& changes)
{
    Json::Array list;
    for (const RecordedChange& change : changes) {
        Json::Object one{{"table", Json(change.table->name)}};
        if (change.before)
            one.emplace_back("before", rowOf(*change.table, *change.before));
        if (change.after)
            one.emplace_back("after", rowOf(*change.table, *change.after));
        list.emplace_back(std::move(one));
    }
    return ovsdb::toText(Json(std::move(list)));
}

std::vector<RecordedChange> parseRecordedChanges(std::string_view text)
{
    const Json json = ovsdb::parseJson(text);
    if (json.asArray() == nullptr)
        refuse(std::string("found ") + json.kindName() + ", expected a list");
    std::vector<RecordedChange> changes;
    for (const Json& one : *json.asArray()) {
        const Json* name = one.find("table");
        const ovsdb::Table* table =
            name != nullptr && name->asText() != nullptr ? serverDatabase().find(*name->asText()) : nullptr;
        if (table == nullptr || table->name == usedIdsTable)
            refuse("a change names no table of the configuration");
        changes.push_back({table, valuesOf(*table, one.find("before")), valuesOf(*table, one.find("after"))});
        if (!changes.back().before && !changes.back().after)
            refuse("a change of " + table->name + " has no row");
    }
    return changes;
}

std::vector<ovsdb::Json> operationsBack(const std::vector<RecordedChange>& changes)
{
    std::vector<Json> operations;
    for (const RecordedChange& change : changes) {
        const Values& known = change.before ? *change.before : *change.after;
        operations.push_back(ovsdb::deleteRows(change.table->name, ovsdb::rowsWith(keyOf(*change.table, known))));
        if (!change.before)
            continue;
        ovsdb::ColumnValues row;
        for (std::size_t i = 0; i < known.size(); ++i) {
            if (known[i] != change.table->columns[i].ifUnset)
                row.emplace_back(change.table->columns[i].name, known[i]);
        }
        operations.push_back(ovsdb::insertRow(change.table->name, row));
    }
    return operations;
}

std::vector<ovsdb::Row> rowsBack(const std::vector<RecordedChange>& changes, const ovsdb::Table& table,
                                 std::span<const ovsdb::Row> rows)
{
    std::vector<ovsdb::Row> result(rows.begin(), rows.end());
    for (const RecordedChange& change : changes) {
        if (change.table->name != table.name)
            continue;
        const ovsdb::ColumnValues key = keyOf(table, change.before ? *change.before : *change.after);
        std::erase_if(result, [&](const ovsdb::Row& row) {
            return std::ranges::all_of(
                key, [&](const auto& part) { return row.values[*table.find(part.first)] == part.second; });
        });
        if (change.before)
            result.push_back({{}, ovsdb::RowValues(*change.before)});
    }
    if (const auto id = table.find("Id"))
        std::ranges::stable_sort(result, {}, [&](const ovsdb::Row& row) { return row.values.integer(*id); });
    return result;
}

} // namespace schema
