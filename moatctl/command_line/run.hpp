// The whole program, as main runs it.
#pragma once

#include "moatctl/command_line/verb.hpp"

namespace moatctl
{

// Returns the exit status.
int run(int argc, const char* const* argv, Program& program);

// Changes the server's rows and writes what the edit reports. Throws what applyEdit throws.
ExitStatus carryOut(Program& program, const std::function<void(Editor&)>& edit);

} // namespace moatctl
