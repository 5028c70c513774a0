#include "ebtables/line_parser.hpp"
#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/check/check.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/tables/values.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace moatctl
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* asConfigured = "as configured";

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
    return text.empty() ? asConfigured : text;
}

// Server and kernel side by side.
struct View {
    std::optional<Configuration> configuration;
    std::string server; // in words
    std::optional<ebtables::Table> kernel;
    std::string noKernel; // why there is none
    Applied applied;
    std::vector<Entry> entries;
    std::string found; // "as configured", or what is not

    bool differs() const { return configuration && kernel && found != asConfigured; }
};

// Fills it in place: what it holds points into the configuration.
void look(Program& program, View& view)
{
    try {
        ovsdb::Client client = program.connect();
        view.configuration = loadFromServer(client);
        view.server = "up, schema " + client.schemaVersion();
        view.applied = apply(expectedOf(*view.configuration));
    } catch (const ovsdb::Error& error) {
        view.server = std::string("down: ") + error.what();
    }
    view.kernel = readKernel(view.noKernel);
    // Without the server there is nothing to compare with: everything is shown as it is.
    if (view.kernel)
        view.entries = compare(view.applied.table, *view.kernel);
    view.found = summaryOf(view.entries);
}

// A change that the daemon is about to carry out is no difference yet.
std::unique_ptr<View> lookTwice(Program& program, bool daemonRuns)
{
    constexpr std::chrono::milliseconds longestCommit{1000};
    constexpr std::chrono::milliseconds pause{50};
    const auto end = std::chrono::steady_clock::now() + longestCommit;
    for (;;) {
        auto view = std::make_unique<View>();
        look(program, *view);
        if (!view->differs() || !daemonRuns || std::chrono::steady_clock::now() >= end)
            return view;
        std::this_thread::sleep_for(pause);
    }
}

// Rows that are enabled and not in force, and why.
Sheet notInForce(const View& view, const std::vector<Problem>& problems)
{
    Sheet sheet{"not_in_force", "Not in force", {"TABLE", "ID", "COLUMN", "REASON"}, {}};
    std::set<std::pair<std::string, std::int32_t>> told;
    const auto add = [&](const std::string& table, std::int32_t id, const std::string& column,
                         const std::string& reason) {
        using tessera::Value;
        sheet.rows.push_back({Value(table), id != 0 ? Cell(Value(id)) : Cell(), Value(column), Value(reason)});
    };
    for (const Problem& problem : problems) {
        if (problem.severity != Severity::Error)
            continue;
        told.emplace(problem.table, problem.id);
        add(problem.table, problem.id, problem.column, problem.text);
    }
    for (const Entry& entry : view.entries) {
        const Row* row = view.applied.rowOf(entry.origin);
        if (entry.state == EntryState::Missing && row != nullptr && told.emplace(row->table->name, row->id()).second)
            add(std::string(row->table->name), row->id(), "", "the kernel does not have it: " + entry.text);
    }
    return sheet;
}

// The ports that rows name and this machine does not have; "" when there are none.
std::string strangePorts(const View& view, const std::vector<Problem>& problems)
{
    std::set<std::string> names;
    for (const Problem& problem : problems) {
        if (problem.severity != Severity::Warning || isAcknowledged(*view.configuration, problem))
            continue;
        const Row* row = view.configuration->find(findTable(problem.table)->id, problem.id);
        names.insert(text::inQuotes(withoutNot(row->text(problem.column))));
    }
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

ExitStatus status(Program& program, const Options& options)
{
    bool inOrder = true;
    Sheet summary{"status", "Status", {"WHAT", "STATE"}, {}};
    const auto add = [&](const char* what, const std::string& state) {
        summary.rows.push_back({tessera::Value(std::string(what)), tessera::Value(state)});
    };

    const std::optional<std::string> pid = daemonPid(options.pidFolder);
    const std::unique_ptr<View> view = lookTwice(program, pid.has_value());
    std::vector<Problem> problems;
    if (view->configuration)
        problems = checkInForce(*view->configuration, {.interfaceState = interfaceHere, .onProgress = {}});
    Sheet rows = notInForce(*view, problems);

    add("server", view->server);
    add("daemon", pid ? "running, process " + *pid : "not running");
    add("last commit", lastCommitText());
    if (!view->kernel)
        add("kernel tables", "unknown: " + view->noKernel);
    else
        add("kernel tables", view->configuration ? view->found : "not compared: the server is down");
    if (view->configuration) {
        add("rows", !rows.rows.empty() ? std::to_string(rows.rows.size()) + " not in force"
                    : view->kernel     ? "all in force"
                                       : "none is wrong in itself");
        const std::string strange = strangePorts(*view, problems);
        add("ports", strange.empty() ? "all here" : "not here: " + strange);
        inOrder = rows.rows.empty() && strange.empty();
    }
    inOrder = inOrder && view->configuration && pid && view->kernel && view->found == asConfigured;

    std::vector<Sheet> sheets{std::move(summary)};
    if (options.style.format == Format::Json || !rows.rows.empty())
        sheets.push_back(std::move(rows));
    sheets.push_back(entriesSheet(view->applied, view->entries, view->configuration.has_value()));
    if (options.style.format != Format::Table) {
        for (Sheet& sheet : sheets) {
            for (std::string& heading : sheet.headings)
                std::ranges::transform(heading, heading.begin(),
                                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
        }
    }
    writeSheets(program.out, sheets, options.style, program.terminal);
    return inOrder ? ExitStatus::Ok : view->configuration ? ExitStatus::Warnings : ExitStatus::Server;
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
