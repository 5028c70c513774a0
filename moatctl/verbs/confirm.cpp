#include "moatctl/command_line/await_in_force.hpp"
#include "moatctl/command_line/guard_rail.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/tables/trial.hpp"
#include "moatctl/verbs/all.hpp"
#include "schema/server/trial.hpp"

#include <chrono>
#include <ostream>
#include <string>
#include <utility>

namespace moatctl
{

namespace
{

schema::Trial trialIn(const ovsdb::TableCache& state)
{
    auto trial = schema::trialOf(state);
    if (!trial)
        throw Failure(ExitStatus::Conflict, "no change waits to be confirmed");
    return *std::move(trial);
}

ExitStatus confirm(Program& program)
{
    ovsdb::Client client = program.connect();
    identify(*program.occasion);
    const schema::Trial trial = trialIn(client.follow(client.tableNames()));
    if (schema::remaining(trial, schema::readClocks()) == std::chrono::milliseconds(0))
        throw Failure(ExitStatus::Conflict,
                      "change " + std::to_string(trial.change) +
                          " was not confirmed in time: it goes back as soon as a daemon is there, "
                          "or with moatctl cancel");
    confirmTrial(client, trial);
    program.out << "change " << trial.change << " is confirmed\n";
    return ExitStatus::Ok;
}

void guard(Program& program, const Configuration& now, const schema::Trial& trial)
{
    Editor editor(now);
    for (const schema::RecordedChange& change : schema::parseRecordedChanges(trial.changes))
        putBack(change, editor.configuration);
    GuardRail(program, "--force does it all the same").look(editor);
    for (const std::string& line : editor.told().notes)
        program.err << line << '\n';
}

ExitStatus cancel(Program& program)
{
    ovsdb::Client client = program.connect();
    identify(*program.occasion);
    const ovsdb::TableCache& state = client.follow(client.tableNames());
    const schema::Trial trial = trialIn(state);
    guard(program, toConfiguration(state), trial);
    const Stored stored = cancelTrial(client, trial, *program.occasion);
    program.out << "change " << trial.change << " is taken back\n";
    program.out.flush();
    if (!program.noWait)
        awaitInForce(program, client, stored);
    return ExitStatus::Ok;
}

} // namespace

void addConfirm(const Command& root, Program& program)
{
    const Command command = root.add("confirm", "Keep the change that was made with --confirm", "confirm");
    command.onGiven([&program] { program.action = [&program] { return confirm(program); }; });
}

void addCancel(const Command& root, Program& program)
{
    const Command command = root.add(
        "cancel", "Take the change that was made with --confirm back at once, before its time is over", "cancel");
    command.flag("--force", "Take it back even if that cuts off your own connection", program.force);
    command.onGiven([&program] { program.action = [&program] { return cancel(program); }; });
}

} // namespace moatctl
