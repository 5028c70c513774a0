#include "moatctl/command_line/carry_out.hpp"

#include "moatctl/check/change.hpp"
#include "moatctl/command_line/await_in_force.hpp"
#include "moatctl/command_line/guard_rail.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/tables/values.hpp"
#include "ovsdb/client.hpp"
#include "ovsdb/operations.hpp"
#include "schema/device.hpp"
#include "schema/trial.hpp"

#include <algorithm>
#include <ostream>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

constexpr const char* howToStore = "nothing was changed (--force stores it all the same)";

bool isError(const Problem& problem)
{
    return problem.severity == Severity::Error;
}

[[noreturn]] void refuse(Program& program, std::vector<Problem> problems)
{
    std::erase_if(problems, [](const Problem& problem) { return !isError(problem); });
    if (problems.size() == 1)
        throw Failure(ExitStatus::BadInput, placeAndText(problems.front()) + "; " + howToStore);
    writeProblems(program.err, problems);
    throw Failure(ExitStatus::BadInput, std::to_string(problems.size()) + " errors; " + howToStore);
}

void checkEffect(Program& program, Editor& editor)
{
    if (editor.configuration == editor.before)
        return;
    const std::vector<Problem> problems = checkChange(editor.before, editor.configuration, checkHere(program));
    if (!program.force && std::ranges::any_of(problems, isError))
        refuse(program, problems);
    editor.flawless = problems.empty();
    for (const Problem& problem : problems)
        editor.note(toText(problem));
}

} // namespace

void addChangeOptions(const Command& command, Program& program)
{
    command.option(
        "--confirm", "SECONDS", "Let the change go back by itself unless moatctl confirm comes in that time",
        [&program](const std::string& given) {
            const auto seconds = parseNumber(given);
            if (!seconds || *seconds < 1 || *seconds > schema::longestTrial)
                throw Failure(ExitStatus::BadInput, "--confirm " + inQuotes(given) + ": expected seconds, from 1 to " +
                                                        std::to_string(schema::longestTrial));
            if (!program.occasion)
                throw Failure(ExitStatus::BadInput, "--confirm is for all lines together: expected it after batch");
            program.occasion->trial = *seconds;
        });
    command.flag("--force", "Store the change even if check would find errors then, or it cuts off your own connection",
                 program.force);
}

std::function<void(Editor&)> checked(Program& program, std::function<void(Editor&)> edit)
{
    return [&program, edit = std::move(edit)](Editor& editor) {
        editor.force = program.force;
        editor.elsewhere = isElsewhere(program);
        edit(editor);
        checkEffect(program, editor);
    };
}

ExitStatus carryOut(Program& program, const std::function<void(Editor&)>& edit)
{
    ovsdb::Client client = program.connect();
    identify(*program.occasion);
    GuardRail guard(program);
    const auto guarded = [&](Editor& editor) {
        edit(editor);
        guard.look(editor);
    };
    const Stored stored = applyEdit(client, guarded, *program.occasion);
    for (const std::string& line : stored.told.notes)
        program.err << line << '\n';
    for (const std::string& line : stored.told.reports)
        program.out << line << '\n';
    program.out.flush();
    if (stored.changed && program.occasion->trial != 0)
        program.err << "goes back in " << program.occasion->trial
                    << " s unless it is confirmed (moatctl confirm, or moatctl cancel)\n";
    if (!program.noWait)
        awaitInForce(program, client, stored);
    return ExitStatus::Ok;
}

ExitStatus carryOutSetting(Program& program, const std::string& column, const tessera::Value& value,
                           const std::string& told)
{
    ovsdb::Client client = program.connect();
    const ovsdb::TableCache& state = client.follow(client.tableNames());
    if (!tellsWhatIsInForce(client))
        throw Failure(ExitStatus::Server, "the server's database, schema " + client.schemaVersion() +
                                              ", has no place for it: expected schema 1.1 or later");
    Stored stored;
    stored.before = toConfiguration(state);
    stored.after = toConfiguration(state);
    stored.devicesBefore = devicesOf(state);
    stored.numberBefore = changeNumberOf(state);
    const ovsdb::ColumnValues values{{column, value}};
    std::vector<ovsdb::Json> operations;
    if (stored.numberBefore) {
        operations.push_back(ovsdb::updateRows(schema::changeTable, ovsdb::everyRow(), values));
        for (ovsdb::Json& operation : ovsdb::countUp(schema::changeTable, schema::changeNumber, schema::changeNumbers))
            operations.push_back(std::move(operation));
    } else {
        ovsdb::ColumnValues row = values;
        // No device has put it in force, whatever it says of an earlier count.
        std::int32_t largest = 0;
        for (const Device& device : stored.devicesBefore)
            largest = std::max(largest, device.number);
        stored.number = (largest + 1) % schema::changeNumbers;
        row.emplace_back(std::string(schema::changeNumber), tessera::Value(*stored.number));
        operations.push_back(ovsdb::insertRow(schema::changeTable, row));
    }
    const ovsdb::TransactionResult result =
        transactOnce(client, operations, "it is not known whether that was stored: the same once more makes sure");
    if (!result.committed())
        throw Failure(ExitStatus::Server, "the server refused it: " + result.errorText());
    stored.changed = true;
    if (stored.numberBefore)
        stored.number = result.outcomes.back().number;
    program.out << told << '\n';
    program.out.flush();
    if (!program.noWait)
        awaitInForce(program, client, stored);
    return ExitStatus::Ok;
}

} // namespace moatctl
