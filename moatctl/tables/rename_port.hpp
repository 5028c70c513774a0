// A port that gets another name.
#pragma once

#include "moatctl/tables/edit.hpp"

#include <string>

namespace moatctl
{

// Puts the new name in every column of every table that holds the old one, after "! " too, and reports each row.
// Patterns such as "eth+" stay; if rows change, a note tells of those that the port leaves or joins by its new name.
// Returns how many rows changed.
std::size_t renamePort(Editor& editor, const std::string& from, const std::string& to);

} // namespace moatctl
