#include "ovsdb/operations.hpp"

#include <utility>

namespace ovsdb
{

namespace
{

Json atom(const tessera::Value& value)
{
    return value.isText() ? Json(value.getText()) : Json(std::int64_t{value.getInteger()});
}

Json condition(std::string_view column, Json value, const char* how = "==")
{
    return Json::Array{Json(Json::Array{Json(column), Json(how), std::move(value)})};
}

Json rowOf(const ColumnValues& values)
{
    Json::Object row;
    for (const auto& [name, value] : values)
        row.emplace_back(name, value ? atom(*value) : Json(Json::Array{Json("set"), Json(Json::Array())}));
    return row;
}

Json waitFor(std::string_view tableName, const Where& where, Json columns, Json rows)
{
    return Json::Object{{"op", "wait"},           {"table", tableName}, {"where", where},
                        {"until", "=="},          {"timeout", 0},       {"columns", std::move(columns)},
                        {"rows", std::move(rows)}};
}

} // namespace

Where everyRow()
{
    return Json::Array();
}

Where rowWithUuid(const Uuid& uuid)
{
    return condition("_uuid", Json(Json::Array{Json("uuid"), Json(uuid.toText())}));
}

Where rowsWith(std::string_view column, std::string_view text)
{
    return condition(column, Json(text));
}

Where rowsWith(const ColumnValues& values)
{
    Json::Array conditions;
    for (const auto& [column, value] : values)
        conditions.emplace_back(Json::Array{Json(column), Json("=="), atom(*value)});
    return conditions;
}

Where rowsUpTo(std::string_view column, std::int32_t greatest)
{
    return condition(column, Json(greatest), "<=");
}

Json insertRow(std::string_view tableName, const ColumnValues& values)
{
    return Json::Object{{"op", "insert"}, {"table", tableName}, {"row", rowOf(values)}};
}

Json insertRow(std::string_view tableName, const ColumnValues& values, const Uuid& uuid)
{
    return Json::Object{{"op", "insert"}, {"table", tableName}, {"uuid", uuid.toText()}, {"row", rowOf(values)}};
}

Json updateRows(std::string_view tableName, const Where& where, const ColumnValues& values)
{
    return Json::Object{{"op", "update"}, {"table", tableName}, {"where", where}, {"row", rowOf(values)}};
}

Json deleteRows(std::string_view tableName, const Where& where)
{
    return Json::Object{{"op", "delete"}, {"table", tableName}, {"where", where}};
}

std::vector<Json> countUp(std::string_view tableName, std::string_view column, std::int32_t limit)
{
    const auto mutation = [column](const char* how, std::int32_t by) {
        return Json(Json::Array{Json(column), Json(how), Json(by)});
    };
    Json::Array mutations{mutation("+=", 1), mutation("%=", limit)};
    return {Json::Object{
                {"op", "mutate"}, {"table", tableName}, {"where", everyRow()}, {"mutations", std::move(mutations)}},
            Json::Object{{"op", "select"},
                         {"table", tableName},
                         {"where", everyRow()},
                         {"columns", Json(Json::Array{Json(column)})}}};
}

Json requireRow(const Table& table, const Row& row)
{
    // An optional column that is unset and one that holds the value it then stands for read the same: not compared.
    Json::Array columns;
    Json::Object values;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const Column& column = table.columns[i];
        if (column.optional && row.values[i] == column.ifUnset)
            continue;
        columns.emplace_back(column.name);
        values.emplace_back(column.name, atom(row.values[i]));
    }
    return waitFor(table.name, rowWithUuid(row.uuid), std::move(columns), Json::Array{Json(std::move(values))});
}

Json requireOnlyRows(std::string_view tableName, std::string_view column, std::int32_t number,
                     const std::vector<std::int32_t>& ids)
{
    Json::Array rows;
    for (const std::int32_t id : ids)
        rows.emplace_back(Json::Object{{"Id", Json(id)}});
    return waitFor(tableName, condition(column, Json(number)), Json::Array{Json("Id")}, std::move(rows));
}

bool TransactionResult::committed() const
{
    if (commitFailed)
        return false;
    for (const Outcome& outcome : outcomes) {
        if (!outcome.done)
            return false;
    }
    return true;
}

std::string TransactionResult::errorText() const
{
    const auto text = [](const Outcome& outcome) {
        return outcome.details.empty() ? outcome.error : outcome.error + ": " + outcome.details;
    };
    if (const auto failed = failedOperation())
        return text(outcomes[*failed]);
    return commitFailed ? text(*commitFailed) : "";
}

std::optional<std::size_t> TransactionResult::failedOperation() const
{
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        if (!outcomes[i].error.empty())
            return i;
    }
    return std::nullopt;
}

} // namespace ovsdb
