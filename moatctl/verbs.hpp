// The verbs: one function a file in verbs/, or in a folder beside it.
#pragma once

#include "moatctl/verb.hpp"

namespace moatctl
{

void addShow(CLI::App& root, Program& program);

} // namespace moatctl
