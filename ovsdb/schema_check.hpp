// Whether a server's schema is one that this program can work with.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/json.hpp"

#include <string>
#include <vector>

namespace ovsdb
{

// Which of the databases that a server lists (its answer to list_dbs) is ours: the wanted one, or else the only one
// that is called `name`, or NAME_GROUP, as that of a group of devices is. Throws SchemaError when there is none or more
// than one, and then says howToChoose; ProtocolError when the answer is no list of names.
std::string chooseDatabase(const Json& listed, const std::string& name, const std::string& wanted = {},
                           const char* howToChoose = "");

// Looks at an answer to get_schema. Throws SchemaError when the name or the major version is another one, or a table
// or column of the named tables, which the database must have, is missing or of another kind. A table that may be
// missing is not looked for columns then. What the schema has besides does not matter.
struct ServerSchema {
    std::string database; // its name
    std::string version;
    std::vector<std::string> missing; // tables of the database that may be
};
ServerSchema checkSchema(const Json& schema, const Database& database, const std::string& databaseName,
                         const std::vector<std::string>& tableNames);

} // namespace ovsdb
