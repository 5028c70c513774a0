// Whether a server's schema is one that this program can work with.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/json.hpp"

#include <string>
#include <vector>

namespace ovsdb
{

// Looks at an answer to get_schema. Throws SchemaError when the name or the major version is another one, or a table
// or column of the named tables, which the database must have, is missing or of another kind. A table that may be
// missing is not looked for columns then. What the schema has besides does not matter.
struct ServerSchema {
    std::string version;
    std::vector<std::string> missing; // tables of the database that may be
};
ServerSchema checkSchema(const Json& schema, const Database& database, const std::vector<std::string>& tableNames);

} // namespace ovsdb
