#include "moatctl/tables/history.hpp"
#include "moatctl/command_line/given.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <limits>
#include <memory>

namespace moatctl
{

namespace
{

constexpr std::size_t usualCount = 20;
constexpr std::size_t usualLines = 10; // of a change, in a table for people

struct HistoryArguments {
    std::size_t count = usualCount;
    std::int32_t number = 0;
    OutputStyle style;
};

std::vector<std::string> linesOf(const HistoryEntry& entry, std::size_t most)
{
    if (entry.changes.empty() && entry.rows == 0)
        return {"unknown: nobody saw which rows changed"};
    if (entry.changes.empty())
        return {std::to_string(entry.rows) + " rows, too many to be kept"};
    std::vector<std::string> lines;
    const std::vector<schema::RecordedChange> changes = changesOf(entry);
    for (const schema::RecordedChange& change : changes) {
        if (lines.size() == most) {
            lines.push_back(std::to_string(changes.size() - most) + " more (moatctl history " +
                            std::to_string(entry.number) + ')');
            break;
        }
        lines.push_back(toText(change));
    }
    return lines;
}

Cell text(const std::string& value)
{
    return tessera::Value(value);
}

// A line for each row that changed; for people, what is said of the whole stands on the first one only.
void addEntry(const HistoryEntry& entry, const HistoryArguments& options, Sheet& sheet)
{
    const bool forPeople = options.style.format == Format::Table;
    bool first = true;
    const std::size_t most = forPeople && options.number == 0 ? usualLines : std::numeric_limits<std::size_t>::max();
    for (const std::string& line : linesOf(entry, most)) {
        if (first || !forPeople)
            sheet.rows.push_back({tessera::Value(entry.number), text(entry.time), text(entry.user), text(entry.address),
                                  text(entry.host), text(entry.verb), text(line)});
        else
            sheet.rows.push_back({{}, {}, {}, {}, {}, {}, text(line)});
        first = false;
    }
}

ExitStatus show(Program& program, const HistoryArguments& options)
{
    ovsdb::Client client = program.connectToHistory();
    std::vector<HistoryEntry> entries = readHistory(client);
    if (options.number != 0) {
        std::erase_if(entries, [&options](const HistoryEntry& entry) { return entry.number != options.number; });
        if (entries.empty())
            throw Failure(ExitStatus::Conflict, "the history has no change " + std::to_string(options.number));
    }
    const bool forPeople = options.style.format == Format::Table;
    Sheet sheet{.name = "history", .title = "History", .headings = {}, .rows = {}};
    if (forPeople)
        sheet.headings = {"CHANGE", "TIME", "USER", "FROM", "HOST", "COMMAND", "ROWS"};
    else
        sheet.headings = {"Number", "Time", "User", "Address", "Host", "Verb", "Change"};
    for (std::size_t i = 0; i < std::min(entries.size(), options.count); ++i)
        addEntry(entries[i], options, sheet);
    writeSheets(program.out, {sheet}, options.style, program.terminal);
    return ExitStatus::Ok;
}

} // namespace

void addHistory(const Command& root, Program& program)
{
    auto options = std::make_shared<HistoryArguments>();
    const Command command =
        root.add("history", "Show who changed what, from where and when, the newest change first", "history -n 5");
    command.option("NUMBER", "", "A change of which everything is shown (default: the newest changes)");
    command.option("-n", "COUNT", "How many changes are shown").defaultsTo(std::to_string(usualCount));
    addOutputOptions(command, options->style);
    command.onGiven([command, &program, options] {
        const Given given(command);
        if (given.has("-n"))
            options->count = static_cast<std::size_t>(given.id("-n"));
        if (given.has("NUMBER"))
            options->number = given.id("NUMBER");
        program.action = [&program, options] { return show(program, *options); };
    });
}

} // namespace moatctl
