#include "ovsdb/row_reader.hpp"

#include <limits>

namespace ovsdb
{

namespace
{

// Reads what is said of one row.
class RowReader
{
public:
    RowReader(const Table& table, std::string_view name) : m_table(table), m_name(name) {}

    RowChange difference(const Uuid& uuid, const Json& change, const FindRow& before) const
    {
        const Json::Object& forms = members(change);
        if (forms.size() != 1)
            refuse("expected one of initial, insert, delete, modify");
        const auto& [form, columns] = forms.front();
        if (form == "initial" || form == "insert") {
            Values values = defaults();
            read(columns, values);
            return {.kind = ChangeKind::Insert, .row = {.uuid = uuid, .values = RowValues(values)}};
        }
        if (form != "delete" && form != "modify")
            refuse("expected one of initial, insert, delete, modify");
        const Row& held = existing(before(uuid));
        if (form == "delete")
            return {.kind = ChangeKind::Delete, .row = {.uuid = uuid, .values = {}}};
        Values values = held.values.toList();
        read(columns, values); // a column of one value carries its new value
        return {.kind = ChangeKind::Modify, .row = {.uuid = uuid, .values = RowValues(values)}};
    }

    RowChange oldAndNew(const Uuid& uuid, const Json& change, const FindRow& before) const
    {
        const Json* oldColumns = nullptr;
        const Json* newColumns = nullptr;
        for (const auto& [form, columns] : members(change)) {
            if (form != "old" && form != "new")
                refuse("expected old, new or both");
            (form == "old" ? oldColumns : newColumns) = &columns;
        }
        if (oldColumns == nullptr && newColumns == nullptr)
            refuse("expected old, new or both");
        if (oldColumns != nullptr) {
            Values ignored = existing(before(uuid)).values.toList();
            read(*oldColumns, ignored); // only checked
        }
        if (newColumns == nullptr)
            return {.kind = ChangeKind::Delete, .row = {.uuid = uuid, .values = {}}};
        return {.kind = oldColumns != nullptr ? ChangeKind::Modify : ChangeKind::Insert,
                .row = {.uuid = uuid, .values = RowValues(complete(*newColumns))}};
    }

    [[noreturn]] void refuse(const std::string& reason) const
    {
        throw ProtocolError("change of tables refused: " + where() + ": " + reason);
    }

private:
    using Values = std::vector<tessera::Value>; // one per column

    std::string where() const { return "table " + m_table.name + ", row " + shownName(m_name); }

    const Json::Object& members(const Json& value) const
    {
        const Json::Object* object = value.asObject();
        if (object == nullptr)
            refuse(std::string("expected an object, found ") + value.kindName());
        return *object;
    }

    const Row& existing(const Row* row) const
    {
        if (row == nullptr)
            refuse("there is no such row");
        return *row;
    }

    // Writes the columns that are given. Returns how many these are.
    std::size_t read(const Json& columns, Values& values) const
    {
        std::size_t read = 0;
        for (const auto& [name, value] : members(columns)) {
            const auto column = m_table.find(name);
            if (!column)
                refuse("unknown column " + shownName(name));
            values[*column] = valueOf(m_table.columns[*column], value);
            ++read;
        }
        return read;
    }

    // In this form a server leaves out the columns that have the default of their type.
    Values defaults() const
    {
        Values values;
        values.reserve(m_table.columns.size());
        for (const Column& column : m_table.columns)
            values.push_back(column.ifUnset);
        return values;
    }

    Values complete(const Json& columns) const
    {
        Values values = defaults();
        if (read(columns, values) == m_table.columns.size())
            return values;
        for (const Column& column : m_table.columns) {
            if (columns.find(column.name) == nullptr)
                refuse("column \"" + column.name + "\" is missing");
        }
        return values;
    }

    tessera::Value valueOf(const Column& column, const Json& value) const
    {
        if (const Json::Array* pair = value.asArray()) // a set of none or one, only where a column may be unset
            return optionalValue(column, *pair);
        return atom(column, value);
    }

    tessera::Value optionalValue(const Column& column, const Json::Array& pair) const
    {
        const std::string* tag = pair.size() == 2 ? pair[0].asText() : nullptr;
        const Json::Array* elements = tag != nullptr && *tag == "set" ? pair[1].asArray() : nullptr;
        if (!column.optional || elements == nullptr || elements->size() > 1)
            refuse(place(column) + "expected one value, found a list");
        return elements->empty() ? column.ifUnset : atom(column, elements->front());
    }

    tessera::Value atom(const Column& column, const Json& value) const
    {
        if (column.kind == ColumnKind::Text) {
            if (const std::string* text = value.asText())
                return tessera::Value(*text);
            refuse(place(column) + "expected a text, found " + value.kindName());
        }
        const auto integer = value.asInteger();
        if (!integer)
            refuse(place(column) + "expected an integer, found " + value.kindName());
        using Range = std::numeric_limits<std::int32_t>;
        if (*integer < Range::min() || *integer > Range::max())
            refuse(place(column) + std::to_string(*integer) + " does not fit 32 bits");
        return tessera::Value(static_cast<std::int32_t>(*integer));
    }

    static std::string place(const Column& column) { return "column \"" + column.name + "\": "; }

    const Table& m_table;
    std::string_view m_name;
};

} // namespace

RowChange readChange(const Table& table, std::string_view name, const Json& change, UpdateFormat format,
                     const FindRow& before)
{
    const RowReader reader(table, name);
    const auto uuid = Uuid::fromText(name);
    if (!uuid)
        reader.refuse("that is no UUID");
    return format == UpdateFormat::Difference ? reader.difference(*uuid, change, before)
                                              : reader.oldAndNew(*uuid, change, before);
}

std::string shownName(std::string_view text)
{
    std::string result = "\"";
    for (const char c : text.substr(0, 64))
        result += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    return result + (text.size() > 64 ? "...\"" : "\"");
}

} // namespace ovsdb
