// What a file makes of a configuration, for whoever does that more than once.
#pragma once

#include "moatctl/command_line/verb.hpp"

#include <functional>
#include <string>

namespace moatctl
{

// The lines of a batch. Errors of form are told when the edit is made, with the others. Throws Failure(BadInput) when
// the file cannot be read.
std::function<void(Editor&)> batchEdit(Program& program, const std::string& file);

// The rows of an import file, instead of all that is there or beside it. Throws Failure(BadInput) after naming the
// errors that the file has in itself.
std::function<void(Editor&)> importEdit(Program& program, const std::string& file, bool replace);

} // namespace moatctl
