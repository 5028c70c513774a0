// The whole program, as main runs it.
#pragma once

#include "moatctl/command_line/verb.hpp"

namespace moatctl
{

// Returns the exit status.
int run(int argc, const char* const* argv, Program& program);

} // namespace moatctl
