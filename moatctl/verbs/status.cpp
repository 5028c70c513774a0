#include "ebtables/line_parser.hpp"
#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <system_error>
#include <utility>

namespace moatctl
{

namespace
{

namespace fs = std::filesystem;

struct Options {
    std::string pidFolder = "/var/run";
    OutputStyle style;
};

std::string firstLine(const fs::path& path)
{
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

// Another namespace's daemon has bridge tables of its own. What may not be read counts as ours; a process that has
// ended has no namespace any more.
bool isInOurNetwork(const std::string& pid)
{
    std::error_code theirs;
    std::error_code ours;
    const fs::path there = fs::read_symlink("/proc/" + pid + "/ns/net", theirs);
    const fs::path here = fs::read_symlink("/proc/self/ns/net", ours);
    return theirs ? theirs == std::errc::permission_denied : ours || there == here;
}

// A process that is the daemon: by its program's name, which anybody may read.
bool isDaemon(const std::string& pid)
{
    return !pid.empty() && std::ranges::all_of(pid, [](char c) { return c >= '0' && c <= '9'; }) &&
           firstLine("/proc/" + pid + "/comm") == "moatkeeper" && isInOurNetwork(pid);
}

// Of the PID file; a daemon in the foreground writes none and is looked for among all processes.
std::optional<std::string> daemonPid(const std::string& pidFolder)
{
    if (std::string pid = firstLine(fs::path(pidFolder) / "moatkeeper.pid"); isDaemon(pid))
        return pid;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        if (std::string pid = entry->path().filename(); isDaemon(pid))
            return pid;
    }
    return std::nullopt;
}

std::string lastCommitText()
{
    std::string reason;
    const auto time = lastCommit(reason);
    if (!time)
        return "unknown: " + reason;
    return *time == CommitTime() ? "never" : timeStamp(*time);
}

const char* nameOf(EntryState state)
{
    switch (state) {
    case EntryState::Same:
        return "ok";
    case EntryState::Missing:
        return "missing";
    case EntryState::Extra:
        return "extra";
    case EntryState::Different:
        return "different";
    }
    return "";
}

// compared: whether the states mean something.
Sheet entriesSheet(const Applied& applied, const std::vector<Entry>& entries, bool compared)
{
    Sheet sheet{"rules", "Rules", {"CHAIN", "RULE", "STATE", "FRAMES", "BYTES", "TABLE", "ID", "TEXT"}, {}};
    using tessera::Value;
    for (const Entry& entry : entries) {
        const auto number = [](bool known, std::uint64_t value) { return known ? Cell(value) : Cell(); };
        const ebtables::Counters counters = entry.counters.value_or(ebtables::Counters());
        const Row* origin = applied.rowOf(entry.origin);
        const bool hasId = origin != nullptr && origin->table->hasIds();
        sheet.rows.push_back({Value(entry.chain), number(entry.position != 0, entry.position),
                              Value(std::string(compared ? nameOf(entry.state) : "unknown")),
                              number(entry.counters.has_value(), counters.packets),
                              number(entry.counters.has_value(), counters.bytes),
                              origin != nullptr ? Cell(Value(std::string(origin->table->name))) : Cell(),
                              hasId ? Cell(Value(origin->id())) : Cell(), Value(entry.text)});
    }
    return sheet;
}

std::string summaryOf(const std::vector<Entry>& entries)
{
    std::string text;
    for (const EntryState state : {EntryState::Missing, EntryState::Extra, EntryState::Different}) {
        const auto count = std::ranges::count(entries, state, &Entry::state);
        if (count != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + ' ' + nameOf(state);
    }
    return text.empty() ? "as configured" : text;
}

ExitStatus status(Program& program, const Options& options)
{
    bool inOrder = true;
    Sheet summary{"status", "Status", {"WHAT", "STATE"}, {}};
    const auto add = [&](const char* what, const std::string& state) {
        summary.rows.push_back({tessera::Value(std::string(what)), tessera::Value(state)});
    };

    std::optional<Configuration> configuration;
    try {
        ovsdb::Client client = program.connect();
        configuration = loadFromServer(client);
        add("server", "up, schema " + client.schemaVersion());
    } catch (const ovsdb::Error& error) {
        add("server", std::string("down: ") + error.what());
        inOrder = false;
    }
    const std::optional<std::string> pid = daemonPid(options.pidFolder);
    add("daemon", pid ? "running, process " + *pid : "not running");
    add("last commit", lastCommitText());
    inOrder = inOrder && pid;

    std::string reason;
    const std::optional<ebtables::Table> kernel = readKernel(reason);
    Applied applied;
    std::vector<Entry> entries;
    if (!kernel) {
        add("kernel tables", "unknown: " + reason);
        inOrder = false;
    } else {
        // Without the server there is nothing to compare with: everything is shown as it is.
        if (configuration)
            applied = apply(expectedOf(*configuration));
        entries = compare(applied.table, *kernel);
        const std::string found = summaryOf(entries);
        add("kernel tables", configuration ? found : "not compared: the server is down");
        inOrder = inOrder && found == "as configured";
    }
    std::vector<Sheet> sheets{std::move(summary), entriesSheet(applied, entries, configuration.has_value())};
    if (options.style.format != Format::Table) {
        for (Sheet& sheet : sheets) {
            for (std::string& heading : sheet.headings)
                std::ranges::transform(heading, heading.begin(),
                                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
        }
    }
    writeSheets(program.out, sheets, options.style, program.colour);
    return inOrder ? ExitStatus::Ok : configuration ? ExitStatus::Warnings : ExitStatus::Server;
}

} // namespace

void addStatus(const Command& root, Program& program)
{
    auto options = std::make_shared<Options>();
    const Command command =
        root.add("status",
                 "Show whether server and daemon run and whether the kernel has what is configured, "
                 "with counters for every rule",
                 "status --format=json");
    command.option("--pid-folder", "FOLDER", "Folder of the daemon's PID file", options->pidFolder)
        .defaultsTo(options->pidFolder);
    addOutputOptions(command, options->style);
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return status(program, *options); }; });
}

} // namespace moatctl
