// Whether a server's schema is one that this program can work with.
#pragma once

#include "ovsdb/json.hpp"

#include <string>
#include <vector>

namespace ovsdb
{

// Looks at an answer to get_schema. Throws SchemaError when the database has another name or major version, or a table
// or column of the named tables is missing or of another kind. What it has besides does not matter.
// Returns the version.
std::string checkSchema(const Json& schema, const std::vector<std::string>& tableNames);

} // namespace ovsdb
