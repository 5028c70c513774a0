#include "platform_linux/delivered_rows.hpp"

#include "schema/tables.hpp"
#include "text/one_line.hpp"

#include <functional>
#include <optional>
#include <utility>

namespace zol::cfg
{

namespace
{

constexpr const char* rowsLabel = "config";

// The first column with a text that is no operand, and what was expected instead.
struct Flaw {
    std::size_t column;
    std::string expected;
};

std::optional<Flaw> flawOf(const schema::Table& table, const ovsdb::Row& row)
{
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const schema::Column& column = table.columns[i];
        if (!column.isText())
            continue;
        if (auto expected = schema::expectedOperand(column.kind, row.values.text(i)))
            return Flaw{i, std::move(*expected)};
    }
    return std::nullopt;
}

} // namespace

DeliveredRows::DeliveredRows(const ovsdb::TableCache& tables, const std::vector<std::string>& tableNames,
                             ZOL_Sysloglevel_Module logModule)
    : m_tables(tables), m_logModule(logModule)
{
    for (const std::string& name : tableNames)
        look(name, m_views[name]);
}

void DeliveredRows::update(const std::set<std::string>& changedTables)
{
    for (const std::string& name : changedTables)
        look(name, m_views[name]);
}

std::span<const ovsdb::Row> DeliveredRows::rowsOf(const std::string& tableName) const
{
    const auto instead = m_instead.find(tableName);
    return instead == m_instead.end() ? m_tables.rows(tableName) : std::span<const ovsdb::Row>(instead->second);
}

void DeliveredRows::look(const std::string& tableName, View& view)
{
    const schema::Table& table = *schema::findTable(tableName);
    const auto rows = rowsOf(tableName);
    view.rows.clear();
    view.columns.clear();
    for (const schema::Column& column : table.columns)
        view.columns.emplace_back(column.name);
    const auto before = std::exchange(view.leftOut, {});
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::optional<Flaw> flaw = flawOf(table, rows[i]);
        if (!flaw) {
            view.rows.push_back(static_cast<std::uint32_t>(i));
            continue;
        }
        const std::string_view value = rows[i].values.text(flaw->column);
        const std::size_t reason = std::hash<std::string_view>()(value) + flaw->column;
        view.leftOut.emplace(rows[i].uuid, reason);
        if (const auto known = before.find(rows[i].uuid); known != before.end() && known->second == reason)
            continue;
        std::string place = tableName;
        if (table.hasIds())
            place += " Id " + std::to_string(rows[i].values.integer(0));
        ZOL_Sysloglevel_warning(m_logModule, rowsLabel, 10,
                                place + " is left out: column " + std::string(table.columns[flaw->column].name) + ", " +
                                    text::inQuotes(value) + ": expected " + flaw->expected);
    }
}

ConfigStatus DeliveredRows::getRowCount(const std::string& tableName, std::uint32_t& rowCount)
{
    const auto view = m_views.find(tableName);
    if (view == m_views.end())
        return {.ok = false, .text = "no table \"" + tableName + "\" is subscribed"};
    rowCount = static_cast<std::uint32_t>(view->second.rows.size());
    return {};
}

ConfigStatus DeliveredRows::readRow(const std::string& tableName, std::uint32_t rowIndex, tessera::NameList& names,
                                    tessera::ValueList& values)
{
    const auto view = m_views.find(tableName);
    if (view == m_views.end() || rowIndex >= view->second.rows.size())
        return {.ok = false, .text = "table \"" + tableName + "\" has no row " + std::to_string(rowIndex)};
    const ovsdb::Row& row = rowsOf(tableName)[view->second.rows[rowIndex]];
    names = view->second.columns;
    values.clear();
    for (std::size_t i = 0; i < names.size(); ++i)
        values.setValue(names[i], row.values[i]);
    return {};
}

} // namespace zol::cfg
