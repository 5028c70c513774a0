#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/given.hpp"
#include "moatctl/command_line/guard_rail.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <ostream>

namespace moatctl
{

namespace
{

HistoryEntry entryToUndo(Program& program, std::int32_t number)
{
    ovsdb::Client client = program.connectToHistory();
    const std::vector<HistoryEntry> entries = readHistory(client);
    if (number == 0) {
        const HistoryEntry* next = nextToUndo(entries);
        if (next == nullptr)
            throw Failure(ExitStatus::Conflict, "there is no change left that could be undone");
        return *next;
    }
    const auto entry = std::ranges::find(entries, number, &HistoryEntry::number);
    if (entry == entries.end())
        throw Failure(ExitStatus::Conflict, "the history has no change " + std::to_string(number));
    return *entry;
}

void undoIn(const HistoryEntry& entry, Editor& editor)
{
    takeBack(entry, editor);
    editor.report("undo of " + std::to_string(entry.number) + ": " + entry.verb);
    for (const schema::RecordedChange& change : changesOf(entry))
        editor.report(toText(schema::RecordedChange{change.table, change.after, change.before}));
}

ExitStatus undo(Program& program, std::int32_t number, bool dryRun)
{
    const HistoryEntry entry = entryToUndo(program, number);
    program.occasion->undoes = entry.number;
    const auto edit = checked(program, [&entry](Editor& editor) { undoIn(entry, editor); });
    if (!dryRun)
        return carryOut(program, edit);
    ovsdb::Client client = program.connect();
    const Configuration before = loadFromServer(client);
    Editor editor(before);
    edit(editor);
    GuardRail(program).look(editor);
    for (const std::string& line : editor.told().notes)
        program.err << line << '\n';
    for (const std::string& line : editor.told().reports)
        program.out << line << '\n';
    return ExitStatus::Ok;
}

} // namespace

void addUndo(const Command& root, Program& program)
{
    const Command command = root.add(
        "undo", "Take a change back, unless its rows were changed again since; undo of an undo puts it in again",
        "undo 17 --dry-run");
    command.option("NUMBER", "", "The change, as history shows it (default: the newest that is not undone)");
    command.flag("--dry-run", "Only show what would change");
    addChangeOptions(command, program);
    command.onGiven([command, &program] {
        const Given given(command);
        const std::int32_t number = given.has("NUMBER") ? given.id("NUMBER") : 0;
        const bool dryRun = given.has("--dry-run");
        program.action = [&program, number, dryRun] { return undo(program, number, dryRun); };
    });
}

} // namespace moatctl
