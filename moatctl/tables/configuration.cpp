#include "moatctl/tables/configuration.hpp"

#include <algorithm>
#include <limits>

namespace moatctl
{

namespace
{

// First row whose Id is not smaller.
auto place(auto& rows, std::int32_t id)
{
    return std::ranges::lower_bound(rows, id, {}, &Row::id);
}

} // namespace

Row::Row(const schema::Table& tableOfRow) : table(&tableOfRow)
{
    values.reserve(tableOfRow.columns.size());
    for (const schema::Column& column : tableOfRow.columns)
        values.push_back(column.defaultValue());
}

std::uint32_t Row::lineOf(std::size_t column) const
{
    return column < lines.size() && lines[column] != 0 ? lines[column] : line;
}

const Row* Configuration::find(TableId table, std::int32_t id) const
{
    const std::vector<Row>& held = rows(table);
    const auto it = place(held, id);
    return it != held.end() && it->id() == id ? &*it : nullptr;
}

Row* Configuration::find(TableId table, std::int32_t id)
{
    return const_cast<Row*>(std::as_const(*this).find(table, id));
}

bool Configuration::add(Row row)
{
    std::vector<Row>& held = m_tables[static_cast<std::size_t>(row.table->id)];
    const auto it = place(held, row.id());
    if (it != held.end() && it->id() == row.id())
        return false;
    rememberId(row.table->id, row.id());
    held.insert(it, std::move(row));
    return true;
}

bool Configuration::remove(TableId table, std::int32_t id)
{
    std::vector<Row>& held = m_tables[static_cast<std::size_t>(table)];
    const auto it = place(held, id);
    if (it == held.end() || it->id() != id)
        return false;
    held.erase(it);
    return true;
}

std::int32_t Configuration::nextId(TableId table) const
{
    const std::int32_t largest = largestId(table);
    return largest < std::numeric_limits<std::int32_t>::max() ? largest + 1 : 0;
}

void Configuration::rememberId(TableId table, std::int32_t id)
{
    std::int32_t& largest = m_largestIds[static_cast<std::size_t>(table)];
    largest = std::max(largest, id);
}

std::string nameOf(const Row& row)
{
    std::string name(row.table->name);
    return row.table->hasIds() ? name + " Id " + std::to_string(row.id()) : name;
}

std::string toText(const Acknowledged& acknowledged)
{
    std::string text(schema::table(acknowledged.table).name);
    if (acknowledged.id != 0)
        text += " Id " + std::to_string(acknowledged.id);
    return text + ": " + acknowledged.warning;
}

std::string toText(const tessera::Value& value)
{
    return value.isText() ? value.getText() : std::to_string(value.getInteger());
}

} // namespace moatctl
