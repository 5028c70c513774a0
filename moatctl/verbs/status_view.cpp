#include "moatctl/verbs/status_view.hpp"

#include "moatctl/bridge/kernel.hpp"
#include "moatctl/check/check.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/server.hpp"
#include "schema/device.hpp"

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <thread>
#include <utility>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;

std::string summaryOf(const std::vector<Entry>& entries)
{
    std::string text;
    for (const auto& [state, word] :
         {std::pair(EntryState::Missing, " missing"), std::pair(EntryState::Extra, " extra"),
          std::pair(EntryState::Different, " different")}) {
        const auto count = std::ranges::count(entries, state, &Entry::state);
        if (count != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + word;
    }
    return text.empty() ? View::asConfigured : text;
}

// A device that is at work on a change, or has ended without a word.
bool isBehind(const Device& device, const std::optional<std::int32_t>& number)
{
    return device.reports() && device.inStep && number && !device.hasReached(*number);
}

bool anyIsBehind(const ovsdb::TableCache& state)
{
    const std::optional<std::int32_t> number = changeNumberOf(state);
    return std::ranges::any_of(devicesOf(state), [&](const Device& device) { return isBehind(device, number); });
}

// Fills it in place: what it holds points into the configuration.
void look(Program& program, View& view, std::optional<Clock::time_point> waitUntil)
{
    std::future<std::optional<KernelState>> kernel;
    const bool elsewhere = isElsewhere(program);
    const auto askKernel = [&] {
        if (!elsewhere && !kernel.valid())
            kernel = std::async(std::launch::async, readKernel, std::ref(view.noKernel));
    };
    try {
        ovsdb::Client client = program.connect();
        const ovsdb::TableCache& state = client.follow(client.tableNames());
        while (waitUntil && anyIsBehind(state) && client.awaitChange(*waitUntil)) {
        }
        askKernel(); // with many rules the tool takes as long as what follows
        view.configuration = toConfiguration(state);
        view.devices = devicesOf(state);
        view.number = changeNumberOf(state);
        view.server = "up, schema " + client.schemaVersion();
        view.expected = expectedOf(*view.configuration);
        view.applied = apply(view.expected);
    } catch (const ovsdb::Error& error) {
        view.server = std::string("down: ") + error.what();
    }
    askKernel();
    if (elsewhere)
        view.noKernel = notLookedAt(program);
    else if (std::optional<KernelState> held = kernel.get())
        view.kernel = rulesOf(*std::move(held), view.applied.table);
    // Without the server there is nothing to compare with: everything is shown as it is.
    if (view.kernel)
        view.entries = compare(view.applied.table, *view.kernel);
    view.found = summaryOf(view.entries);
}

} // namespace

std::vector<const Device*> View::countingDevices() const
{
    const bool anyReports = std::ranges::any_of(devices, &Device::reports);
    std::vector<const Device*> counting;
    for (const Device& device : devices) {
        if (device.reports() || !anyReports)
            counting.push_back(&device);
    }
    return counting;
}

std::unique_ptr<View> lookAround(Program& program, bool daemonRuns)
{
    // Of a change without a number, which other clients make, no device says that it is in force.
    constexpr std::chrono::milliseconds longestCommit{1000};
    constexpr std::chrono::milliseconds pause{50};
    const Clock::time_point start = Clock::now();
    for (;;) {
        auto view = std::make_unique<View>();
        look(program, *view, daemonRuns ? std::optional(start + program.server.timeout) : std::nullopt);
        if (!view->differs() || !daemonRuns || Clock::now() >= start + longestCommit)
            return view;
        std::this_thread::sleep_for(pause);
    }
}

std::vector<NotInForceHere> notInForce(const View& view)
{
    std::vector<NotInForceHere> found;
    if (!view.configuration)
        return found;
    std::set<std::pair<std::string, std::int32_t>> told;
    const auto add = [&](const std::string& device, RowNotInForce row) {
        told.emplace(row.problem.table, row.problem.id);
        found.push_back({device, std::move(row)});
    };
    std::map<std::pair<std::string, std::int32_t>, Problem> expected; // what no kernel would take
    for (Problem& problem : checkInForce(*view.configuration, view.expected, view.applied)) {
        if (problem.severity == Severity::Error)
            expected.emplace(std::pair(problem.table, problem.id), problem);
    }
    const std::vector<const Device*> devices = view.countingDevices();
    for (const Device* device : devices) {
        for (RowNotInForce& row : rowsNotInForce(*view.configuration, view.expected, device->lines())) {
            const auto known = expected.find({row.problem.table, row.problem.id});
            if (known != expected.end())
                row.problem.column = known->second.column;
            add(devices.size() > 1 ? device->name : "", std::move(row));
        }
    }
    // A change that nobody counts may be on its way to the device.
    for (auto& [key, problem] : expected) {
        if (!told.contains(key))
            add("", {problem, ""});
    }
    for (const Entry& entry : view.entries) {
        const Row* row = view.applied.rowOf(entry.origin);
        if (entry.state == EntryState::Missing && row != nullptr &&
            !told.contains({std::string(row->table->name), row->id()}))
            add("", {problemAt(Severity::Error, *view.configuration, *row, "",
                               "the kernel does not have it: " + entry.text),
                     ""});
    }
    return found;
}

bool isInOrder(const Device& device, const View& view)
{
    return device.reports() && device.inStep && !isBehind(device, view.number) && device.notInForceCount == 0;
}

std::string inWords(const Device& device, const View& view)
{
    if (device.started.empty() && device.reason.empty())
        return "not heard of since the server was started";
    if (device.started.empty())
        return device.reason + (device.inStepSince.empty() ? "" : ", since " + device.inStepSince);
    if (!device.inStep)
        return "not in step since " + device.inStepSince + (device.reason.empty() ? "" : ": " + device.reason);
    if (isBehind(device, view.number))
        return "behind: it has not said that the last change is in force; its daemon is busy, or has ended";
    return "in step since " + device.inStepSince + ", the last change in force since " + device.since + ", " +
           std::to_string(device.rules) + " rules" +
           (device.engine.empty() || device.engine == schema::plainEngine ? "" : " (" + device.engine + ')') +
           ", moatkeeper " + device.version;
}

} // namespace moatctl
