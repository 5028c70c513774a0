// What ends a change on trial: that it stays, or that it goes back.
#pragma once

#include "moatctl/tables/edit.hpp"
#include "schema/server/trial.hpp"

namespace moatctl
{

// Throw Failure(Conflict) when it waits no more, Failure(Server) when the server refuses or is lost before it has
// answered, and the errors of ovsdb::Client.
void confirmTrial(ovsdb::Client& client, const schema::Trial& trial);
// The client follows all tables, which have the trial. Returns what was changed, to be waited for.
Stored cancelTrial(ovsdb::Client& client, const schema::Trial& trial, const Occasion& occasion);

} // namespace moatctl
