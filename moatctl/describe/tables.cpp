#include "moatctl/describe/tables.hpp"

#include "ovsdb/json.hpp"

#include <istream>
#include <iterator>
#include <limits>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>

namespace moatctl
{

namespace
{

using ovsdb::Json;

std::string number(const Json* value)
{
    return std::to_string(value->asInteger().value());
}

// What the server allows: a kind and its limits.
std::string allowed(const Json& key)
{
    if (const Json* values = key.find("enum")) { // ["set", [value, ...]]
        std::string text;
        for (const Json& value : *values->asArray()->at(1).asArray())
            text += (text.empty() ? "One of " : ", ") + (value.asText()->empty() ? "the empty text" : *value.asText());
        return text;
    }
    const bool isText = *key.find("type")->asText() == "string";
    const Json* least = key.find(isText ? "minLength" : "minInteger");
    const Json* most = key.find(isText ? "maxLength" : "maxInteger");
    if (isText)
        return "Text" + (least && most ? " of " + number(least) + " to " + number(most) + " bytes"
                         : most        ? " of at most " + number(most) + " bytes"
                                       : "");
    return "Integer" + (least && most ? ", " + number(least) + " to " + number(most) : "");
}

void writeColumn(std::ostream& out, const Json& column, bool isUnique)
{
    const Json* type = column.find("type");
    const Json* key = type->find("key");
    const Json* least = type->find("min");
    out << (key->asObject() ? allowed(*key) : "Any " + *key->asText());
    if (least != nullptr && least->asInteger() == 0)
        out << "; optional";
    if (isUnique)
        out << "; unique in the table";
    if (const Json* ephemeral = column.find("ephemeral"); ephemeral != nullptr && ephemeral->asBool().value_or(false))
        out << "; not kept when the server ends";
    out << ".\n";
}

// Whether no two rows may have the same value in this column alone.
bool isIndex(const Json& table, const std::string& column)
{
    const Json* indexes = table.find("indexes");
    if (indexes == nullptr)
        return false;
    for (const Json& index : *indexes->asArray()) {
        if (index == Json(Json::Array{column}))
            return true;
    }
    return false;
}

const Json& member(const Json* object, const std::string& name)
{
    const Json* found = object != nullptr ? object->find(name) : nullptr;
    if (found == nullptr)
        throw std::runtime_error("the schema has no " + name);
    return *found;
}

} // namespace

void writeTables(std::ostream& out, std::istream& schemaFile, std::istream& pattern)
{
    const std::string text{std::istreambuf_iterator<char>(schemaFile), {}};
    const Json schema = ovsdb::parseJson(text);
    const Json& tables = member(&schema, "tables");
    std::set<std::string> left;
    for (const auto& [name, table] : *tables.asObject()) {
        for (const auto& [column, unused] : *member(&table, "columns").asObject())
            left.insert(name + '.' + column);
    }
    for (std::string line; std::getline(pattern, line);) {
        if (line == "@VERSION@") {
            out << *member(&schema, "version").asText() << '\n';
        } else if (line.size() > 2 && line.front() == '@' && line.back() == '@') {
            const std::string name = line.substr(1, line.size() - 2);
            const std::size_t dot = name.find('.');
            if (left.erase(name) == 0)
                throw std::runtime_error(name + " is described twice, or not in the schema");
            const Json& table = member(&tables, name.substr(0, dot));
            const std::string column = name.substr(dot + 1);
            writeColumn(out, member(&member(&table, "columns"), column), isIndex(table, column));
        } else {
            out << line << '\n';
        }
    }
    if (!left.empty())
        throw std::runtime_error(*left.begin() + " of the schema is not described");
}

} // namespace moatctl
