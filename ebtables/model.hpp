// Foretells which commands the tool will refuse because of what the tables hold.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ebtables
{

// Plays the commands, one by one, on a copy of the table. Returns for each the reason of its refusal, in the tool's
// words, or nothing when the tool takes it. In doubt (rules with parts that are unknown here) a command counts as
// taken. skip: commands that are left out, by index; may be empty.
std::vector<std::optional<std::string>> foretell(Table table, std::span<const Command> commands,
                                                 const std::vector<bool>& skip);

} // namespace ebtables
