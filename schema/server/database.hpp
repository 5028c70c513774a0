// The tables as the client of the configuration server takes them.
#pragma once

#include "ovsdb/database.hpp"

namespace schema
{

// All six. Lives for ever.
const ovsdb::Database& serverDatabase();

} // namespace schema
