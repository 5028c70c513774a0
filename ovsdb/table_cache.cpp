#include "ovsdb/table_cache.hpp"

#include <algorithm>
#include <limits>
#include <map>

namespace ovsdb
{

namespace
{

[[noreturn]] void refuse(const std::string& reason)
{
    throw ProtocolError("change of tables refused: " + reason);
}

// Names come from the peer: a log line shows no more than this of them, and no control characters.
std::string shown(std::string_view text)
{
    std::string result = "\"";
    for (const char c : text.substr(0, 64))
        result += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    return result + (text.size() > 64 ? "...\"" : "\"");
}

const Json::Object& members(const Json& value, const std::string& where)
{
    const Json::Object* object = value.asObject();
    if (object == nullptr)
        refuse(where + ": expected an object, found " + value.kindName());
    return *object;
}

std::int32_t idOf(const Table& table, const Row& row)
{
    const auto column = table.find("Id");
    return column ? row.values[*column].getInteger() : 0;
}

// The whole of one table's changes, checked; nothing of the cache is touched before all tables have been.
struct Changes {
    std::map<Uuid, std::optional<Row>> rows; // nothing: the row goes
};

class RowReader
{
public:
    RowReader(const Table& table, std::string_view uuid) : m_table(table), m_uuid(uuid) {}

    std::string where() const { return "table " + m_table.name + ", row " + shown(m_uuid); }

    // Writes the columns that are given. Returns how many these are.
    std::size_t read(const Json& columns, Row& row) const
    {
        std::size_t read = 0;
        for (const auto& [name, value] : members(columns, where())) {
            const auto column = m_table.find(name);
            if (!column)
                refuse(where() + ": unknown column " + shown(name));
            row.values[*column] = valueOf(m_table.columns[*column], value);
            ++read;
        }
        return read;
    }

    // In this form a server leaves out the columns that have the default of their type.
    Row defaults(const Uuid& uuid) const
    {
        Row row{.uuid = uuid, .values = {}};
        row.values.reserve(m_table.columns.size());
        for (const Column& column : m_table.columns)
            row.values.push_back(column.ifUnset);
        return row;
    }

    Row complete(const Uuid& uuid, const Json& columns) const
    {
        Row row = defaults(uuid);
        if (read(columns, row) == m_table.columns.size())
            return row;
        for (const Column& column : m_table.columns) {
            if (columns.find(column.name) == nullptr)
                refuse(where() + ": column \"" + column.name + "\" is missing");
        }
        return row;
    }

private:
    tessera::Value valueOf(const Column& column, const Json& value) const
    {
        const std::string place = where() + ", column \"" + column.name + "\"";
        if (const Json::Array* pair = value.asArray()) // a set of none or one, only where a column may be unset
            return optionalValue(column, *pair, place);
        return atom(column, value, place);
    }

    static tessera::Value optionalValue(const Column& column, const Json::Array& pair, const std::string& place)
    {
        const std::string* tag = pair.size() == 2 ? pair[0].asText() : nullptr;
        const Json::Array* elements = tag != nullptr && *tag == "set" ? pair[1].asArray() : nullptr;
        if (!column.optional || elements == nullptr || elements->size() > 1)
            refuse(place + ": expected one value, found a list");
        return elements->empty() ? column.ifUnset : atom(column, elements->front(), place);
    }

    static tessera::Value atom(const Column& column, const Json& value, const std::string& place)
    {
        if (column.kind == ColumnKind::Text) {
            if (const std::string* text = value.asText())
                return tessera::Value(*text);
            refuse(place + ": expected a text, found " + value.kindName());
        }
        const auto integer = value.asInteger();
        if (!integer)
            refuse(place + ": expected an integer, found " + value.kindName());
        using Range = std::numeric_limits<std::int32_t>;
        if (*integer < Range::min() || *integer > Range::max())
            refuse(place + ": " + std::to_string(*integer) + " does not fit 32 bits");
        return tessera::Value(static_cast<std::int32_t>(*integer));
    }

    const Table& m_table;
    std::string_view m_uuid;
};

// Reads the changes of one table against the rows that it has.
class TableReader
{
public:
    TableReader(const Table& table, const std::vector<Row>& rows) : m_table(table)
    {
        for (const Row& row : rows)
            m_held.emplace(row.uuid, &row);
    }

    Changes read(const Json& rowUpdates, UpdateFormat format) const
    {
        Changes changes;
        for (const auto& [uuidText, update] : members(rowUpdates, "table " + m_table.name)) {
            const auto uuid = Uuid::fromText(uuidText);
            const RowReader reader(m_table, uuidText);
            if (!uuid)
                refuse(reader.where() + ": that is no UUID");
            const auto held = m_held.find(*uuid);
            const Row* before = held != m_held.end() ? held->second : nullptr;
            auto after = format == UpdateFormat::Difference ? readDifference(reader, *uuid, update, before)
                                                            : readOldAndNew(reader, *uuid, update, before);
            if (!changes.rows.emplace(*uuid, std::move(after)).second) // upper and lower case name the same row
                refuse(reader.where() + ": twice in one change");
        }
        return changes;
    }

private:
    static std::optional<Row> readDifference(const RowReader& reader, const Uuid& uuid, const Json& update,
                                             const Row* before)
    {
        const Json::Object& forms = members(update, reader.where());
        if (forms.size() != 1)
            refuse(reader.where() + ": expected one of initial, insert, delete, modify");
        const auto& [form, columns] = forms.front();
        if (form == "initial" || form == "insert") {
            expect(before == nullptr, reader, "there is such a row already");
            Row row = reader.defaults(uuid);
            reader.read(columns, row);
            return row;
        }
        expect(form == "delete" || form == "modify", reader, "expected one of initial, insert, delete, modify");
        expect(before != nullptr, reader, "there is no such row");
        if (form == "delete")
            return std::nullopt;
        Row row = *before;
        reader.read(columns, row); // a column of one value carries its new value
        return row;
    }

    static std::optional<Row> readOldAndNew(const RowReader& reader, const Uuid& uuid, const Json& update,
                                            const Row* before)
    {
        const Json* oldColumns = nullptr;
        const Json* newColumns = nullptr;
        for (const auto& [form, columns] : members(update, reader.where())) {
            expect(form == "old" || form == "new", reader, "expected old, new or both");
            (form == "old" ? oldColumns : newColumns) = &columns;
        }
        expect(oldColumns != nullptr || newColumns != nullptr, reader, "expected old, new or both");
        expect((oldColumns != nullptr) == (before != nullptr), reader,
               before != nullptr ? "there is such a row already" : "there is no such row");
        if (oldColumns != nullptr) {
            Row ignored = *before;
            reader.read(*oldColumns, ignored); // only checked
        }
        if (newColumns == nullptr)
            return std::nullopt;
        return reader.complete(uuid, *newColumns);
    }

    static void expect(bool fine, const RowReader& reader, const char* otherwise)
    {
        if (!fine)
            refuse(reader.where() + ": " + otherwise);
    }

    const Table& m_table;
    std::map<Uuid, const Row*> m_held;
};

// The rows after the changes, which are used up, by ascending Id. A server keeps Ids unique; the UUID decides if one
// does not.
std::vector<Row> changed(const Table& table, const std::vector<Row>& rows, Changes&& changes)
{
    std::vector<Row> result;
    result.reserve(rows.size() + changes.rows.size());
    for (const Row& row : rows) {
        if (!changes.rows.contains(row.uuid))
            result.push_back(row);
    }
    for (auto& [uuid, row] : changes.rows) {
        if (row)
            result.push_back(std::move(*row));
    }
    std::sort(result.begin(), result.end(), [&](const Row& a, const Row& b) {
        const std::int32_t idA = idOf(table, a);
        const std::int32_t idB = idOf(table, b);
        return idA != idB ? idA < idB : a.uuid < b.uuid;
    });
    return result;
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace

std::string Uuid::toText() const
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::optional<Uuid> Uuid::fromText(std::string_view text)
{
    if (text.size() != 36)
        return std::nullopt;
    Uuid uuid;
    std::size_t digit = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-')
                return std::nullopt;
            continue;
        }
        const int value = hexDigit(text[i]);
        if (value < 0)
            return std::nullopt;
        std::uint8_t& byte = uuid.bytes[digit / 2];
        byte = static_cast<std::uint8_t>(byte * 16 + value);
        ++digit;
    }
    return uuid;
}

TableCache::TableCache(const Database& database, const std::vector<std::string>& tableNames)
{
    for (const std::string& name : tableNames) {
        if (!holds(name))
            m_tables.push_back({&database.at(name), {}});
    }
}

TableCache::Held* TableCache::find(std::string_view tableName)
{
    const auto held =
        std::find_if(m_tables.begin(), m_tables.end(), [&](const Held& h) { return h.table->name == tableName; });
    return held != m_tables.end() ? &*held : nullptr;
}

std::span<const Row> TableCache::rows(std::string_view tableName) const
{
    for (const Held& held : m_tables) {
        if (held.table->name == tableName)
            return held.rows;
    }
    return {};
}

const tessera::Value* TableCache::value(const Table& table, const Row& row, std::string_view columnName)
{
    const auto column = table.find(columnName);
    return column ? &row.values[*column] : nullptr;
}

bool TableCache::holds(std::string_view tableName) const
{
    return std::any_of(m_tables.begin(), m_tables.end(), [&](const Held& h) { return h.table->name == tableName; });
}

std::vector<std::string> TableCache::tableNames() const
{
    std::vector<std::string> names;
    for (const Held& held : m_tables)
        names.push_back(held.table->name);
    return names;
}

TableCache TableCache::empty() const
{
    TableCache cache;
    for (const Held& held : m_tables)
        cache.m_tables.push_back({held.table, {}});
    return cache;
}

std::set<std::string> TableCache::apply(const Json& tableUpdates, UpdateFormat format)
{
    std::vector<std::pair<Held*, std::vector<Row>>> results;
    for (const auto& [name, rowUpdates] : members(tableUpdates, "tables")) {
        Held* held = find(name);
        if (held == nullptr)
            refuse("unknown table " + shown(name));
        Changes changes = TableReader(*held->table, held->rows).read(rowUpdates, format);
        results.emplace_back(held, changed(*held->table, held->rows, std::move(changes)));
    }
    std::set<std::string> changedTables;
    for (auto& [held, rows] : results) { // from here on nothing fails
        if (rows == held->rows)
            continue;
        changedTables.insert(held->table->name);
        held->rows = std::move(rows);
    }
    return changedTables;
}

std::set<std::string> TableCache::replace(const Json& tableUpdates, UpdateFormat format)
{
    TableCache fresh = empty();
    fresh.apply(tableUpdates, format);
    std::set<std::string> changedTables;
    for (std::size_t i = 0; i < m_tables.size(); ++i) {
        if (m_tables[i].rows != fresh.m_tables[i].rows)
            changedTables.insert(m_tables[i].table->name);
    }
    m_tables = std::move(fresh.m_tables);
    return changedTables;
}

} // namespace ovsdb
