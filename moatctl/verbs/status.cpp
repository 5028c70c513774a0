#include "moatctl/bridge/daemon.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/bridge/tracer.hpp"
#include "moatctl/check/check.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/screen.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/values.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/status_view.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <utility>

namespace moatctl
{

namespace
{

struct StatusArguments {
    std::string pidFolder = "/var/run";
    OutputStyle style;
    bool watch = false;
};

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

Sheet notInForceSheet(const std::vector<NotInForceHere>& rows)
{
    Sheet sheet{"not_in_force", "Not in force", {"TABLE", "ID", "COLUMN", "LINE", "REASON"}, {}};
    using tessera::Value;
    for (const auto& [device, row] : rows) {
        const Problem& problem = row.problem;
        sheet.rows.push_back({Value(problem.table), problem.id != 0 ? Cell(Value(problem.id)) : Cell(),
                              Value(problem.column), Value(row.line),
                              Value((device.empty() ? "" : "on " + device + ": ") + problem.text)});
    }
    return sheet;
}

Sheet devicesSheet(const View& view)
{
    Sheet sheet{"devices",
                "Devices",
                {"NAME", "STATE", "NUMBER", "SINCE", "IN_STEP", "IN_STEP_SINCE", "REASON", "RULES", "NOT_IN_FORCE",
                 "REPAIRED", "REPAIRED_WHAT", "ENGINE", "VERSION", "STARTED"},
                {}};
    using tessera::Value;
    for (const Device& device : view.devices)
        sheet.rows.push_back({Value(device.name), Value(inWords(device, view)), Value(device.number),
                              Value(device.since), Value(device.inStep ? 1 : 0), Value(device.inStepSince),
                              Value(device.reason), Value(device.rules), std::uint64_t{device.notInForceCount},
                              Value(device.repaired), Value(device.repairedWhat), Value(device.engine),
                              Value(device.version), Value(device.started)});
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

// The summary; whether all is as it should be.
bool summarise(const View& view, const std::optional<std::string>& pid, const std::vector<NotInForceHere>& rows,
               Sheet& summary)
{
    const auto add = [&](const std::string& what, const std::string& state) {
        summary.rows.push_back({tessera::Value(what), tessera::Value(state)});
    };
    add("server", view.server);
    add("daemon", pid ? "running, process " + *pid : "not running");
    bool inOrder = view.isAsConfigured() && pid;
    for (const Device& device : view.devices) {
        add("device " + device.name, inWords(device, view));
        if (!device.repaired.empty())
            add("repaired", device.repaired + ": " + device.repairedWhat);
    }
    for (const Device* device : view.countingDevices())
        inOrder = inOrder && isInOrder(*device, view);
    add("last commit", lastCommitText());
    if (!view.kernel)
        add("kernel tables", "unknown: " + view.noKernel);
    else
        add("kernel tables", view.configuration ? view.found : "not compared: the server is down");
    for (const std::string& table : removeLeftTraces())
        add("trace", "a trace that was killed had left the table " + table + " in the kernel: removed");
    if (!view.configuration)
        return false;
    std::set<std::pair<std::string, std::int32_t>> different; // of several lines, or on several devices
    for (const NotInForceHere& each : rows)
        different.emplace(each.row.problem.table, each.row.problem.id);
    add("rows", !rows.empty() ? std::to_string(different.size()) + " not in force"
                : view.kernel ? "all in force"
                              : "none is wrong in itself");
    const std::string strange = strangePorts(view, checkInForce(*view.configuration, view.expected, view.applied,
                                                                {.interfaceState = interfaceHere, .onProgress = {}}));
    add("ports", strange.empty() ? "all here" : "not here: " + strange);
    return inOrder && rows.empty() && strange.empty();
}

ExitStatus status(Program& program, const StatusArguments& options, std::ostream& out)
{
    Sheet summary{"status", "Status", {"WHAT", "STATE"}, {}};
    const std::optional<std::string> pid = daemonPid(options.pidFolder);
    const std::unique_ptr<View> view = lookAround(program, pid.has_value());
    const std::vector<NotInForceHere> rows = notInForce(*view);
    const bool inOrder = summarise(*view, pid, rows, summary);

    std::vector<Sheet> sheets{std::move(summary)};
    if (options.style.format == Format::Json)
        sheets.push_back(devicesSheet(*view));
    if (options.style.format == Format::Json || !rows.empty())
        sheets.push_back(notInForceSheet(rows));
    sheets.push_back(entriesSheet(view->applied, view->entries, view->configuration.has_value()));
    if (options.style.format != Format::Table) {
        for (Sheet& sheet : sheets) {
            for (std::string& heading : sheet.headings)
                std::ranges::transform(heading, heading.begin(),
                                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
        }
    }
    writeSheets(out, sheets, options.style, program.terminal);
    return inOrder ? ExitStatus::Ok : view->configuration ? ExitStatus::Warnings : ExitStatus::Server;
}

ExitStatus watch(Program& program, const StatusArguments& options)
{
    return showEverySecond(program, options.style, [&](std::ostream& out) { status(program, options, out); });
}

} // namespace

void addStatus(const Command& root, Program& program)
{
    auto options = std::make_shared<StatusArguments>();
    const Command command =
        root.add("status",
                 "Show whether server and daemon run and whether the kernel has what is configured, "
                 "with counters for every rule",
                 "status --format=json");
    command.option("--pid-folder", "FOLDER", "Folder of the daemon's PID file", options->pidFolder)
        .defaultsTo(options->pidFolder);
    command.flag("--watch", "Renew what is shown every second, until interrupted: on a terminal", options->watch);
    addOutputOptions(command, options->style);
    command.onGiven([&program, options] {
        program.action = [&program, options] {
            requireThisMachine(program, "status",
                               "moatctl devices shows how those are, and moatctl status on one of them all of it");
            return options->watch ? watch(program, *options) : status(program, *options, program.out);
        };
    });
}

} // namespace moatctl
