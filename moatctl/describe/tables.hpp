// The manual page of the tables: prose around what the schema says of each column.
#pragma once

#include <iosfwd>

namespace moatctl
{

// Replaces each line @TABLE.COLUMN@ of the pattern by what the server allows in the column, and @VERSION@ by the
// schema's version. Throws std::runtime_error when a column is missing in either, or described twice.
void writeTables(std::ostream& out, std::istream& schema, std::istream& pattern);

} // namespace moatctl
