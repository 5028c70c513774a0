#include "moatctl/bridge/daemon.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/command_line/open_metrics.hpp"
#include "moatctl/command_line/replace_file.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/status_view.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <utility>

namespace moatctl
{

namespace
{

using Type = OpenMetrics::Type;
using Labels = OpenMetrics::Labels;

struct MetricsArguments {
    std::string pidFolder = "/var/run";
    std::string output;
};

template <typename Clock, typename Duration>
std::chrono::milliseconds since1970(const std::chrono::time_point<Clock, Duration>& time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
}

Labels labelsOf(const Row& row)
{
    return {{"table", std::string(row.table->name)},
            {"id", row.table->hasIds() ? std::to_string(row.id()) : std::string()}};
}

enum class RowState { InForce, NotInForce, Disabled, Unknown };

constexpr std::array<std::pair<RowState, const char*>, 4> rowStates{{{RowState::InForce, "in_force"},
                                                                     {RowState::NotInForce, "not_in_force"},
                                                                     {RowState::Disabled, "disabled"},
                                                                     {RowState::Unknown, "unknown"}}};

// Of every row of the configuration, in the order of the tables.
std::vector<std::pair<const Row*, RowState>> statesOf(const View& view)
{
    std::set<std::pair<std::string, std::int32_t>> failing;
    for (const NotInForceHere& each : notInForce(view))
        failing.emplace(each.row.problem.table, each.row.problem.id);
    const std::set<const Row*> applied(view.applied.rows.begin(), view.applied.rows.end());
    const bool isTold = view.kernel || std::ranges::any_of(view.devices, &Device::reports);
    std::vector<std::pair<const Row*, RowState>> states;
    for (const schema::Table& table : schema::allTables()) {
        for (const Row& row : view.configuration->rows(table.id)) {
            if (failing.contains({std::string(table.name), row.id()}))
                states.emplace_back(&row, RowState::NotInForce);
            else if (!applied.contains(&row))
                states.emplace_back(&row, RowState::Disabled);
            else
                states.emplace_back(&row, isTold ? RowState::InForce : RowState::Unknown);
        }
    }
    return states;
}

void writeRows(OpenMetrics& metrics, const View& view)
{
    const auto states = view.configuration ? statesOf(view) : std::vector<std::pair<const Row*, RowState>>();
    metrics.begin("moatkeeper_rows", Type::Gauge, "", "Rows of each table of the configuration, by their state.");
    for (const schema::Table& table : schema::allTables()) {
        for (const auto& [state, name] : rowStates) {
            const auto isOne = [&, wanted = state](const auto& each) {
                return each.first->table == &table && each.second == wanted;
            };
            if (view.configuration)
                metrics.sample({{"table", std::string(table.name)}, {"state", name}},
                               static_cast<std::uint64_t>(std::ranges::count_if(states, isOne)));
        }
    }
    metrics.begin("moatkeeper_row_in_force", Type::Gauge, "",
                  "Whether the row is in force; without the rows that are disabled, or of which that is not known.");
    for (const auto& [row, state] : states) {
        if (state == RowState::InForce || state == RowState::NotInForce)
            metrics.sample(labelsOf(*row), state == RowState::InForce);
    }
    metrics.begin("moatkeeper_row_info", Type::Gauge, "", "Always 1; values has what the row says.");
    for (const auto& [row, state] : states) {
        Labels labels = labelsOf(*row);
        labels.emplace_back("values", valuesOf(*row));
        metrics.sample(labels, true);
    }
}

// A filter's are those that went through its list, an entry's those that it has met.
void writeCounters(OpenMetrics& metrics, const View& view)
{
    std::map<std::pair<schema::TableId, std::int32_t>, std::pair<const Row*, ebtables::Counters>> counted;
    for (const Entry& entry : view.entries) {
        const Row* row = view.applied.rowOf(entry.origin);
        if (row == nullptr || !entry.counters)
            continue;
        auto& [of, sum] = counted[{row->table->id, row->id()}];
        of = row;
        sum.packets += entry.counters->packets;
        sum.bytes += entry.counters->bytes;
    }
    metrics.begin("moatkeeper_row_frames", Type::Counter, "",
                  "Frames that the kernel has counted for the row. It starts anew when the row's rule is put in anew.");
    for (const auto& [key, of] : counted)
        metrics.sample(labelsOf(*of.first), of.second.packets);
    metrics.begin("moatkeeper_row_bytes", Type::Counter, "bytes",
                  "Bytes of these frames, as the kernel counts them: without the Ethernet header.");
    for (const auto& [key, of] : counted)
        metrics.sample(labelsOf(*of.first), of.second.bytes);
}

void writeKernel(OpenMetrics& metrics, const View& view, bool here)
{
    metrics.begin("moatkeeper_kernel_entries", Type::Gauge, "",
                  "Rules and chains of the kernel beside those that the configuration makes.");
    constexpr std::array<std::pair<EntryState, const char*>, 4> states{{{EntryState::Same, "as_configured"},
                                                                        {EntryState::Missing, "missing"},
                                                                        {EntryState::Extra, "extra"},
                                                                        {EntryState::Different, "different"}}};
    for (const auto& [state, name] : states) {
        if (view.kernel && view.configuration)
            metrics.sample({{"state", name}},
                           static_cast<std::uint64_t>(std::ranges::count(view.entries, state, &Entry::state)));
    }
    metrics.begin(
        "moatkeeper_kernel_transactions", Type::Counter, "",
        "Transactions of nf_tables in this network namespace: commits, repairs, and those of other programs.");
    if (const auto count = here ? transactions() : std::nullopt)
        metrics.sample({}, std::uint64_t{*count});
    std::string unused;
    const CommitTime never;
    const CommitTime commit = here ? lastCommit(unused).value_or(never) : never;
    const bool isKnown = commit != never;
    metrics.begin("moatkeeper_last_commit_timestamp_seconds", Type::Gauge, "seconds",
                  "When the daemon last changed the kernel's tables.");
    if (isKnown)
        metrics.sample({}, since1970(commit));
    metrics.begin("moatkeeper_last_commit_age_seconds", Type::Gauge, "seconds", "How long ago that was.");
    if (isKnown)
        metrics.sample({}, since1970(std::chrono::system_clock::now()) - since1970(commit));
}

// What each device says of itself. A daemon that was stopped, or has not been heard of, says nothing.
void writeDevices(OpenMetrics& metrics, const View& view)
{
    const auto eachDevice = [&](std::string_view name, Type type, std::string_view unit, std::string_view help,
                                const auto& write) {
        metrics.begin(name, type, unit, help);
        for (const Device& each : view.devices)
            write(each, Labels{{"device", each.name}});
    };
    const auto times = [&](std::string_view name, std::string_view help, std::string Device::*member) {
        eachDevice(name, Type::Gauge, "seconds", help, [&](const Device& each, const Labels& labels) {
            if (const auto time = text::parseUtcTime(each.*member))
                metrics.sample(labels, since1970(*time));
        });
    };
    const auto numbers = [&](std::string_view name, std::string_view help, const auto& number) {
        eachDevice(name, Type::Gauge, "", help, [&](const Device& each, const Labels& labels) {
            if (each.reports())
                metrics.sample(labels, number(each));
        });
    };
    eachDevice("moatkeeper_device_connected", Type::Gauge, "",
               "Whether the device's daemon has told the server how it is since either was started.",
               [&](const Device& each, const Labels& labels) { metrics.sample(labels, each.reports()); });
    eachDevice("moatkeeper_device_info", Type::Gauge, "", "Always 1; version is that of the device's daemon.",
               [&](const Device& each, Labels labels) {
                   labels.emplace_back("version", each.version);
                   if (each.reports())
                       metrics.sample(labels, true);
               });
    numbers("moatkeeper_device_in_step", "Whether the device's kernel holds what its daemon wants.",
            [](const Device& each) { return each.inStep; });
    numbers("moatkeeper_device_rules", "Rules of the daemon that the device's kernel holds.",
            [](const Device& each) { return static_cast<std::uint64_t>(each.rules); });
    numbers("moatkeeper_device_refused_lines", "Lines that the device has not put in force.",
            [](const Device& each) { return std::uint64_t{each.notInForceCount}; });
    eachDevice("moatkeeper_device_changes", Type::Counter, "",
               "The number of the last change that the device has in force: moatkeeper_changes, or less for a moment.",
               [&](const Device& each, const Labels& labels) {
                   if (each.reports() && each.number >= 0)
                       metrics.sample(labels, static_cast<std::uint64_t>(each.number));
               });
    times("moatkeeper_device_change_timestamp_seconds", "When that change came into force.", &Device::since);
    times("moatkeeper_device_in_step_since_timestamp_seconds", "Since when the device is in step, or is not.",
          &Device::inStepSince);
    times("moatkeeper_device_repair_timestamp_seconds",
          "When the daemon last put right what another program had changed; without a sample it has not done so.",
          &Device::repaired);
    times("moatkeeper_device_start_timestamp_seconds", "When the device's daemon was started.", &Device::started);
}

void write(std::ostream& out, Program& program, const MetricsArguments& options)
{
    const bool here = !isElsewhere(program);
    const std::unique_ptr<View> view = lookAround(program, false);
    OpenMetrics metrics(out);
    const auto single = [&](std::string_view name, std::string_view help, bool value) {
        metrics.begin(name, Type::Gauge, "", help);
        metrics.sample({}, value);
    };
    metrics.begin("moatkeeper_metrics_timestamp_seconds", Type::Gauge, "seconds", "When all this was looked at.");
    metrics.sample({}, since1970(std::chrono::system_clock::now()));
    single("moatkeeper_server_up", "Whether the configuration server answers. If not, nothing is told of it below.",
           view->configuration.has_value());
    single("moatkeeper_kernel_readable",
           "Whether the kernel's bridge table may be read here. If not, nothing is told of it below.",
           view->kernel.has_value());
    metrics.begin("moatkeeper_daemon_running", Type::Gauge, "", "Whether the daemon runs on this machine.");
    if (here)
        metrics.sample({}, daemonPid(options.pidFolder).has_value());
    metrics.begin("moatkeeper_changes", Type::Counter, "",
                  "The number of the last change of the configuration by moatctl. 0 follows 1999999999.");
    if (view->configuration)
        metrics.sample({}, static_cast<std::uint64_t>(view->number.value_or(0)));
    writeRows(metrics, *view);
    writeCounters(metrics, *view);
    writeKernel(metrics, *view, here);
    writeDevices(metrics, *view);
    metrics.end();
}

ExitStatus metrics(Program& program, const MetricsArguments& options)
{
    if (options.output.empty()) {
        write(program.out, program, options);
        return ExitStatus::Ok;
    }
    std::ostringstream text;
    write(text, program, options);
    replaceFile(options.output, text.view());
    return ExitStatus::Ok;
}

} // namespace

void addMetrics(const Command& root, Program& program)
{
    auto options = std::make_shared<MetricsArguments>();
    const Command command = root.add(
        "metrics",
        "Write counters and states as OpenMetrics text, for a collector; says when server or kernel cannot be read",
        "metrics --output moatkeeper.prom");
    command.option("--output", "FILE", "Put it in the place of a file, in one step, as a collector wants it",
                   options->output);
    command.option("--pid-folder", "FOLDER", "Folder of the daemon's PID file", options->pidFolder)
        .defaultsTo(options->pidFolder);
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return metrics(program, *options); }; });
}

} // namespace moatctl
