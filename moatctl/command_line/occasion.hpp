// Who runs this program, from where, and with which words.
#pragma once

#include "moatctl/tables/occasion.hpp"

#include <string>

namespace moatctl
{

// The words as a shell would take them, on one line: rule add --in eth0 --drop.
std::string commandLine(int argc, const char* const* argv);

// What sshd says of the connection, SSH_CONNECTION: "client port server port". Where a program in between, such as
// sudo, has taken the variable away, that of the nearest parent process that has it. Empty: there is none.
std::string sshConnection();

// Fills in who runs this program, and where.
void identify(Occasion& occasion);

} // namespace moatctl
