#include "moatctl/tables/trial.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/server.hpp"
#include "ovsdb/client.hpp"

#include <string>

namespace moatctl
{

namespace
{

// Whatever came in between, nothing was done.
void require(const ovsdb::TransactionResult& result, const schema::Trial& trial)
{
    const std::string name = "change " + std::to_string(trial.change);
    if (const auto failed = result.failedOperation(); failed && result.outcomes[*failed].error == "timed out")
        throw Failure(ExitStatus::Conflict, name + " does not wait any more: it was confirmed or taken back meanwhile");
    if (!result.committed())
        throw Failure(ExitStatus::Server, "the server refused it: " + result.errorText());
}

} // namespace

void confirmTrial(ovsdb::Client& client, const schema::Trial& trial)
{
    const std::string unknown = "it is not known whether change " + std::to_string(trial.change) +
                                " is confirmed: moatctl show says if it waits yet";
    require(transactOnce(client, {schema::requireTrial(trial), schema::endTrial(trial)}, unknown), trial);
}

Stored cancelTrial(ovsdb::Client& client, const schema::Trial& trial, const Occasion& occasion)
{
    const ovsdb::TableCache& state = client.followed();
    Stored stored;
    stored.before = toConfiguration(state);
    stored.devicesBefore = devicesOf(state);
    stored.numberBefore = changeNumberOf(state);
    const std::string unknown = "it is not known whether change " + std::to_string(trial.change) +
                                " is taken back: if it is, moatctl history shows that";
    const ovsdb::TransactionResult result =
        transactOnce(client, schema::putBack(trial, state, entryOf(occasion)), unknown);
    require(result, trial);
    stored.changed = true;
    stored.number = result.outcomes.back().number;
    stored.after = toConfiguration(client.followed());
    return stored;
}

} // namespace moatctl
