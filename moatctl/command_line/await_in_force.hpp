// Waits until a stored change is in force on the devices, and says what of it is not.
#pragma once

#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/edit.hpp"

namespace moatctl
{

// For the timeout at most, and until so many devices have it as Program::quorum asks for. Devices whose daemon was
// stopped, or has not been heard of since the server was started, count only where there are no others. A server that
// goes away is tried again as long as there is time.
//
// client: the one that has stored the change and follows all tables. Does nothing when nothing was changed. Throws
// Failure(NotInForce) after naming the rows on standard error, and Failure(NotApplied) when no daemon has said in time
// that it applies the change, or the server cannot tell.
void awaitInForce(Program& program, ovsdb::Client& client, const Stored& stored);

} // namespace moatctl
