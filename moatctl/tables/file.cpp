#include "moatctl/tables/file.hpp"

#include "ovsdb/json.hpp"
#include "schema/server/database.hpp"

#include <algorithm>
#include <cctype>
#include <limits>
#include <map>
#include <optional>
#include <utility>

namespace moatctl
{

namespace
{

using ovsdb::Json;

// Six times those of 100,000 rules with all columns. Each takes some 50 bytes.
constexpr std::size_t mostValues = 10'000'000;

// Line numbers of offsets without walking the text each time.
class LineIndex
{
public:
    explicit LineIndex(std::string_view text)
    {
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '\n')
                m_ends.push_back(i);
        }
    }
    std::uint32_t lineOf(std::size_t offset) const
    {
        return static_cast<std::uint32_t>(std::ranges::lower_bound(m_ends, offset) - m_ends.begin()) + 1;
    }

private:
    std::vector<std::size_t> m_ends;
};

class FileParser
{
public:
    FileParser(std::string_view text, const std::string& name) : m_index(text)
    {
        m_result.configuration.file = name;
        try {
            parse(ovsdb::parseJson(text, {.values = mostValues, .comments = true}));
        } catch (const ovsdb::JsonError& error) {
            m_result.readable = false;
            const bool empty = text.find_first_not_of(" \t\r\n") == std::string_view::npos;
            std::string reason = error.what(); // a sentence
            reason.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(reason.front())));
            if (reason.ends_with('.'))
                reason.pop_back();
            report(error.offset(), "", 0, "",
                   (empty ? "empty" : "not JSON: " + reason) + "; expected an object with a list of rows per table");
        }
    }
    LoadedFile take() { return std::move(m_result); }

private:
    void report(std::size_t offset, std::string_view table, std::int32_t id, std::string_view column, std::string text)
    {
        m_result.problems.push_back({.severity = Severity::Error,
                                     .file = m_result.configuration.file,
                                     .line = m_index.lineOf(offset),
                                     .table = std::string(table),
                                     .id = id,
                                     .column = std::string(column),
                                     .text = std::move(text)});
    }

    void parse(const Json& root)
    {
        const Json::Object* tables = root.asObject();
        if (tables == nullptr) {
            report(root.offset(), "", 0, "",
                   std::string("expected an object with a list of rows per table, found ") + root.kindName());
            return;
        }
        for (const auto& [name, rows] : *tables) {
            const auto table = std::ranges::find(schema::allTables(), std::string_view(name), &schema::Table::name);
            if (name == schema::acknowledgedTable)
                parseAcknowledged(rows);
            else if (table == schema::allTables().end())
                report(rows.offset(), "", 0, "", "there is no table " + inQuotes(name));
            else
                parseTable(*table, rows);
        }
    }

    void parseTable(const schema::Table& table, const Json& rows)
    {
        const Json::Array* list = rows.asArray();
        if (list == nullptr) {
            report(rows.offset(), table.name, 0, "", std::string("expected a list of rows, found ") + rows.kindName());
            return;
        }
        for (const Json& row : *list) {
            if (row.asObject() == nullptr)
                report(row.offset(), table.name, 0, "",
                       std::string("expected a row, an object, found ") + row.kindName());
            else
                parseRow(table, row);
        }
    }

    void parseAcknowledged(const Json& list)
    {
        constexpr std::string_view form = "a list of objects with Table, a name, Row, an Id or 0, and Warning, a text";
        const auto wrong = [&](const Json& where) {
            report(where.offset(), schema::acknowledgedTable, 0, "",
                   "expected " + std::string(form) + ", found " + where.kindName());
        };
        if (list.asArray() == nullptr)
            return wrong(list);
        for (const Json& entry : *list.asArray()) {
            if (entry.asObject() == nullptr) {
                wrong(entry);
                continue;
            }
            const auto textOf = [&entry](std::string_view name) {
                const Json* member = entry.find(name);
                return member != nullptr && member->asText() != nullptr ? *member->asText() : std::string();
            };
            const schema::Table* table = schema::findTable(textOf("Table"));
            const Json* row = entry.find("Row");
            const auto id = row != nullptr ? row->asInteger() : std::nullopt;
            const std::string warning = textOf("Warning");
            if (table == nullptr || !inRange(id) || *id < 0 || warning.empty() || entry.asObject()->size() != 3)
                wrong(entry);
            else
                m_result.configuration.acknowledged[{table->id, static_cast<std::int32_t>(*id), warning}];
        }
    }

    void parseRow(const schema::Table& table, const Json& object)
    {
        Row row(table);
        row.line = m_index.lineOf(object.offset());
        row.lines.assign(table.columns.size(), 0);
        // The Id goes with every message about the row.
        const Json* givenId = object.find("Id");
        const std::int32_t id = table.hasIds() && givenId != nullptr ? idOf(*givenId) : 0;
        bool good = true;
        for (const auto& [name, value] : *object.asObject()) {
            const auto column = table.find(name);
            if (!column) {
                report(value.offset(), table.name, id, name, "the table has no such column");
                good = false;
                continue;
            }
            row.lines[*column] = m_index.lineOf(value.offset());
            good = parseValue(table, *column, value, id, row) && good;
        }
        for (std::size_t i = 0; i < table.columns.size(); ++i) {
            if (table.columns[i].required && row.lines[i] == 0) {
                report(object.offset(), table.name, id, table.columns[i].name,
                       "missing: expected " + std::string(schema::expectedValue(table.columns[i].kind)));
                good = false;
            }
        }
        if (isFirst(row, givenId, object.offset()) && good)
            m_result.configuration.add(std::move(row));
    }

    // Whether no row before it, good or not, has the Id. A row whose Id cannot be read passes.
    bool isFirst(const Row& row, const Json* givenId, std::size_t offset)
    {
        const bool hasIds = row.table->hasIds();
        if (hasIds && (givenId == nullptr || !inRange(givenId->asInteger())))
            return true;
        const auto [first, isNew] = m_lineOfRow.try_emplace({row.table->id, row.id()}, row.line);
        if (!isNew)
            report(offset, row.table->name, row.id(), hasIds ? "Id" : "",
                   hasIds ? "already used in line " + std::to_string(first->second)
                          : "a second row: the table has one row at most");
        return isNew;
    }

    bool parseValue(const schema::Table& table, std::size_t column, const Json& value, std::int32_t id, Row& row)
    {
        const schema::Column& form = table.columns[column];
        if (form.isText()) {
            if (const std::string* text = value.asText()) {
                row.values[column] = tessera::Value(*text);
                return true;
            }
            report(value.offset(), table.name, id, form.name,
                   std::string("expected a text, found ") + value.kindName());
            return false;
        }
        const auto integer = value.asInteger();
        if (!integer) {
            report(value.offset(), table.name, id, form.name,
                   std::string("expected an integer, found ") + value.kindName());
            return false;
        }
        if (!inRange(integer)) {
            report(value.offset(), table.name, id, form.name,
                   std::to_string(*integer) + ": expected " + std::string(schema::expectedValue(form.kind)));
            return false;
        }
        row.values[column] = tessera::Value(static_cast<std::int32_t>(*integer));
        return true;
    }

    static std::int32_t idOf(const Json& value)
    {
        const auto integer = value.asInteger();
        return inRange(integer) && *integer > 0 ? static_cast<std::int32_t>(*integer) : 0;
    }

    static bool inRange(const std::optional<std::int64_t>& integer)
    {
        return integer && *integer >= std::numeric_limits<std::int32_t>::min() &&
               *integer <= std::numeric_limits<std::int32_t>::max();
    }

    LineIndex m_index;
    std::map<std::pair<TableId, std::int32_t>, std::uint32_t> m_lineOfRow; // of the first with the Id
    LoadedFile m_result;
};

} // namespace

LoadedFile parseConfiguration(std::string_view text, const std::string& name)
{
    return FileParser(text, name).take();
}

} // namespace moatctl
