#include "ovsdb/schema_check.hpp"

#include "text/one_line.hpp"

#include <algorithm>
#include <set>

namespace ovsdb
{

namespace
{

constexpr std::size_t longestList = 400; // of a server's databases, as it is told

const std::string* textMember(const Json& object, std::string_view name)
{
    const Json* member = object.find(name);
    return member != nullptr ? member->asText() : nullptr;
}

// "integer", "string" ...: a type is its name, or an object with a key that is one or has one.
std::string keyType(const Json& type)
{
    const Json* key = type.asObject() != nullptr ? type.find("key") : &type;
    if (key == nullptr)
        return "";
    const std::string* name = key->asObject() != nullptr ? textMember(*key, "type") : key->asText();
    return name != nullptr ? *name : "";
}

void checkColumn(const Table& table, const Column& column, const Json* found)
{
    const std::string place = "the server's table " + table.name + ", column " + column.name;
    const Json* type = found != nullptr ? found->find("type") : nullptr;
    if (type == nullptr)
        throw SchemaError(place + ": missing");
    const std::string expected = column.kind == ColumnKind::Integer ? "integer" : "string";
    if (keyType(*type) != expected || type->find("value") != nullptr)
        throw SchemaError(place + ": expected type " + expected + ", found " + toText(*type).substr(0, 100));
    const Json* max = type->find("max");
    if (max != nullptr && max->asInteger() != 1)
        throw SchemaError(place + ": expected one value, found a set of several");
    const Json* min = type->find("min");
    const bool optional = min != nullptr && min->asInteger() == 0;
    if (optional && !column.optional)
        throw SchemaError(place + ": expected a value in every row, found an optional column");
}

// Without the server's database about itself.
std::set<std::string> namesIn(const Json& listed)
{
    if (listed.asArray() == nullptr)
        throw ProtocolError("list_dbs answered by something else than a list of names");
    std::set<std::string> names;
    for (const Json& database : *listed.asArray()) {
        if (database.asText() == nullptr)
            throw ProtocolError("list_dbs answered by something else than a list of names");
        if (*database.asText() != "_Server")
            names.insert(*database.asText());
    }
    return names;
}

std::string quoted(const std::set<std::string>& names)
{
    std::string list = names.empty() ? "none" : "";
    for (const std::string& name : names)
        list += (list.empty() ? "" : ", ") + text::inQuotes(name);
    return list.substr(0, longestList);
}

} // namespace

std::string chooseDatabase(const Json& listed, const std::string& name, const std::string& wanted,
                           const char* howToChoose)
{
    const std::set<std::string> names = namesIn(listed);
    std::set<std::string> suitable;
    for (const std::string& database : names) {
        if (wanted.empty() ? database == name || database.starts_with(name + '_') : database == wanted)
            suitable.insert(database);
    }
    if (suitable.size() == 1)
        return *suitable.begin();
    if (suitable.empty())
        throw SchemaError("the server has no database " + text::inQuotes(wanted.empty() ? name : wanted) + ", it has " +
                          quoted(names));
    throw SchemaError("the server has several databases, expected one of " + quoted(suitable) + howToChoose);
}

ServerSchema checkSchema(const Json& schema, const Database& database, const std::string& databaseName,
                         const std::vector<std::string>& tableNames)
{
    const std::string* name = textMember(schema, "name");
    const std::string* version = textMember(schema, "version");
    const Json* tables = schema.find("tables");
    if (name == nullptr || tables == nullptr || tables->asObject() == nullptr)
        throw SchemaError("the server's answer is no schema");
    if (*name != databaseName)
        throw SchemaError("expected database \"" + databaseName + "\", found \"" + name->substr(0, 64) + "\"");
    const std::string expected = std::to_string(database.schemaMajorVersion) + ".";
    if (version == nullptr || !version->starts_with(expected))
        throw SchemaError("expected schema version " + expected + "x.y, found " +
                          (version != nullptr ? version->substr(0, 32) : "none"));
    ServerSchema result{.database = databaseName, .version = *version, .missing = {}};
    for (const Table& table : database.tables) {
        if (table.mayBeMissing && tables->find(table.name) == nullptr)
            result.missing.push_back(table.name);
    }
    for (const std::string& tableName : tableNames) {
        if (std::ranges::find(result.missing, tableName) != result.missing.end())
            continue;
        const Table& table = database.at(tableName);
        const Json* found = tables->find(tableName);
        const Json* columns = found != nullptr ? found->find("columns") : nullptr;
        if (columns == nullptr)
            throw SchemaError("the server's database has no table " + tableName);
        for (const Column& column : table.columns)
            checkColumn(table, column, columns->find(column.name));
    }
    return result;
}

} // namespace ovsdb
