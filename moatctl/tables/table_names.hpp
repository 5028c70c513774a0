// The configuration tables as a person names them.
#pragma once

#include "schema/tables.hpp"

#include <string>
#include <string_view>

namespace moatctl
{

using schema::TableId;
using schema::ValueKind;

// By the server's name or the command line's word ("rule"), whatever the case; nullptr when there is none.
const schema::Table* findTable(std::string_view nameOrWord);
// Why there is none: `"rules": expected global, policy, ...`; empty when there is one.
std::string wrongTable(const std::string& nameOrWord);

} // namespace moatctl
