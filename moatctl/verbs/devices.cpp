#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/given.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/screen.hpp"
#include "moatctl/tables/device_state.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/values.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/client.hpp"
#include "ovsdb/operations.hpp"
#include "schema/device.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

struct DevicesArguments {
    OutputStyle style;
    bool wrong = false;
    bool watch = false;
};

std::vector<StandingDevice> readDevices(Program& program)
{
    ovsdb::Client client = program.connectToDevices();
    if (!tellsWhatIsInForce(client))
        throw Failure(ExitStatus::Server, "the server's database, schema " + client.schemaVersion() +
                                              ", has no place for devices: expected schema 1.1 or later");
    return standingDevices(client.read(), std::chrono::system_clock::now());
}

std::string timeOf(const DeviceState& state)
{
    return state.time ? (state.atLeast ? "over " : "") + inWords(*state.time) : std::string();
}

Sheet sheetForPeople(const std::vector<StandingDevice>& devices)
{
    Sheet sheet{"devices",
                "Devices",
                {"DEVICE", "STATE", "FOR", "BEHIND", "RULES", "REFUSED", "VERSION", "ENGINE", "REASON"},
                {}};
    using tessera::Value;
    for (const auto& [device, state, counts] : devices)
        sheet.rows.push_back({Value(device.name), Value(std::string(nameOf(state.standing))), Value(timeOf(state)),
                              state.behind ? Cell(Value(*state.behind)) : Cell(), Value(device.rules),
                              std::uint64_t{device.notInForceCount}, Value(device.version), Value(device.engine),
                              Value(device.reason)});
    return sheet;
}

Sheet sheetForPrograms(const std::vector<StandingDevice>& devices)
{
    Sheet sheet{"devices",
                "Devices",
                {"name", "state", "seconds", "at_least", "behind", "counts", "number", "since", "in_step",
                 "in_step_since", "reason", "rules", "not_in_force", "repaired", "repaired_what", "engine", "version",
                 "started", "seen"},
                {}};
    using tessera::Value;
    for (const auto& [device, state, counts] : devices) {
        std::string word = nameOf(state.standing);
        std::ranges::replace(word, ' ', '_');
        sheet.rows.push_back({Value(device.name), Value(word),
                              state.time ? Cell(static_cast<std::uint64_t>(state.time->count())) : Cell(),
                              Value(state.atLeast ? 1 : 0), state.behind ? Cell(Value(*state.behind)) : Cell(),
                              Value(counts ? 1 : 0), Value(device.number), Value(device.since),
                              Value(device.inStep ? 1 : 0), Value(device.inStepSince), Value(device.reason),
                              Value(device.rules), std::uint64_t{device.notInForceCount}, Value(device.repaired),
                              Value(device.repairedWhat), Value(device.engine), Value(device.version),
                              Value(device.started), Value(device.seen)});
    }
    return sheet;
}

// "100 devices: 98 in force, 1 behind, 1 silent".
std::string summaryOf(const std::vector<StandingDevice>& devices)
{
    std::string text = std::to_string(devices.size()) + (devices.size() == 1 ? " device" : " devices");
    const char* separator = ": ";
    for (const Standing standing : {Standing::InForce, Standing::InPart, Standing::Behind, Standing::NotInStep,
                                    Standing::Silent, Standing::Stopped, Standing::Unheard}) {
        const auto count = std::ranges::count(devices, standing, [](const auto& each) { return each.state.standing; });
        if (count == 0)
            continue;
        text += separator + std::to_string(count) + ' ' + nameOf(standing);
        separator = ", ";
    }
    return text;
}

ExitStatus show(Program& program, const DevicesArguments& options, std::ostream& out)
{
    std::vector<StandingDevice> devices = readDevices(program);
    const auto isRight = [](const StandingDevice& each) { return !each.counts || isInOrder(each.state); };
    const bool allRight = !devices.empty() && std::ranges::all_of(devices, isRight);
    const std::string summary = summaryOf(devices);
    if (options.wrong)
        std::erase_if(devices, isRight);
    if (options.style.format == Format::Table) {
        if (!options.style.noHeadings)
            out << summary << '\n';
        if (!devices.empty())
            writeSheets(out, {sheetForPeople(devices)}, options.style, program.terminal);
    } else {
        writeSheets(out, {sheetForPrograms(devices)}, options.style, program.terminal);
    }
    return allRight ? ExitStatus::Ok : ExitStatus::Warnings;
}

ExitStatus watch(Program& program, const DevicesArguments& options)
{
    return showEverySecond(program, options.style, [&](std::ostream& out) { show(program, options, out); });
}

ExitStatus forget(Program& program, const std::vector<std::string>& names)
{
    ovsdb::Client client = program.connectToDevices();
    std::vector<ovsdb::Json> operations;
    const std::vector<Device> devices = devicesOf(client.read());
    for (const std::string& name : names) {
        const auto device = std::ranges::find(devices, name, &Device::name);
        if (device == devices.end())
            throw Failure(ExitStatus::Conflict, "there is no device " + inQuotes(name) + "; nothing was changed");
        if (device->reports())
            program.err << "warning: the daemon of " << name
                        << " was not stopped: if it runs, it will tell of itself again\n";
        operations.push_back(ovsdb::deleteRows(schema::deviceTable, ovsdb::rowsWith(schema::device::name, name)));
    }
    const ovsdb::TransactionResult result = transactOnce(
        client, operations, "it is not known whether that was done: moatctl devices shows those that are left");
    if (!result.committed())
        throw Failure(ExitStatus::Server, "the server refused it: " + result.errorText());
    for (const std::string& name : names)
        program.out << "forgotten: " << name << '\n';
    return ExitStatus::Ok;
}

std::int32_t heartbeatOf(const std::string& text)
{
    const auto seconds = parseNumber(text);
    if (!seconds || *seconds < 0 || *seconds > schema::longestHeartbeat)
        throw Failure(ExitStatus::BadInput, "SECONDS " + inQuotes(text) + ": expected seconds, from 0 to " +
                                                std::to_string(schema::longestHeartbeat));
    return *seconds;
}

ExitStatus setHeartbeat(Program& program, std::int32_t seconds)
{
    return carryOutSetting(program, std::string(schema::changeHeartbeat), tessera::Value(seconds),
                           seconds == 0 ? "heartbeat: none" : "heartbeat: " + std::to_string(seconds) + " s");
}

} // namespace

void addDevices(const Command& root, Program& program)
{
    auto options = std::make_shared<DevicesArguments>();
    const Command devices =
        root.add("devices", "Show how it stands with each device: in force, behind, not in step, silent, stopped",
                 "devices --wrong");
    devices.flag("--wrong", "Only devices that count and are not in order", options->wrong);
    devices.flag("--watch", "Renew what is shown every second, until interrupted: on a terminal", options->watch);
    addOutputOptions(devices, options->style);

    const Command forgotten =
        devices.add("forget", "Delete what is known of devices that are no more", "devices forget bridge7");
    forgotten.option("NAME", "", "The devices").required().anyNumber();
    forgotten.onGiven([forgotten, &program] {
        const Given given(forgotten);
        program.action = [&program, names = given.values("NAME")] { return forget(program, names); };
    });

    const Command heartbeat = devices.add(
        "heartbeat", "Have each device tell of itself after so many seconds at most, so that a silent one is seen",
        "devices heartbeat 30");
    heartbeat.option("SECONDS", "", "From 1 to 86400; 0: only when something is new (default in a new database)")
        .required();
    heartbeat.onGiven([heartbeat, &program] {
        const std::int32_t seconds = heartbeatOf(Given(heartbeat).value("SECONDS"));
        program.action = [&program, seconds] { return setHeartbeat(program, seconds); };
    });

    devices.standsAlone();
    devices.onGiven([&program, options] { // also with one of these, after it
        if (!program.action)
            program.action = [&program, options] {
                return options->watch ? watch(program, *options) : show(program, *options, program.out);
            };
    });
}

} // namespace moatctl
