#include "moatctl/tables/device_state.hpp"

#include "ovsdb/table_cache.hpp"
#include "schema/device.hpp"
#include "schema/history.hpp"
#include "text/one_line.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace moatctl
{

namespace
{

using std::chrono::seconds;

constexpr std::size_t longestLoss = 400;
constexpr int missedHeartbeats = 2;
constexpr int mostStarts = 2;  // of a daemon, while it is watched: an upgrade in two packages
constexpr seconds onTheWay{5}; // what a slow device and a slow way may take besides

// A clock that is ahead has just said it.
std::optional<seconds> since(const std::string& time, const Reference& reference)
{
    const auto begin = text::parseUtcTime(time);
    if (!begin)
        return std::nullopt;
    return std::max(std::chrono::floor<seconds>(reference.now - *begin), seconds(0));
}

void findBehind(const Device& device, const Reference& reference, DeviceState& state)
{
    state.standing = Standing::Behind;
    if (device.number < 0)
        return;
    state.behind = schema::changesBetween(device.number, *reference.number);
    if (reference.changes.empty())
        return;
    // The oldest change that is missing there.
    const auto place = static_cast<std::size_t>(*state.behind - 1);
    state.atLeast = place >= reference.changes.size();
    const auto made = state.atLeast ? reference.changes.back() : reference.changes[place];
    state.time = std::max(std::chrono::floor<seconds>(reference.now - made), seconds(0));
}

Reference referenceOf(const ovsdb::TableCache& cache, std::chrono::system_clock::time_point now)
{
    Reference reference{.now = now, .number = changeNumberOf(cache)};
    const auto valueOf = [&cache](std::string_view name, const ovsdb::Row& row, std::string_view column) {
        return ovsdb::TableCache::value(*cache.find(name), row, column);
    };
    for (const ovsdb::Row& row : cache.rows(schema::changeTable))
        reference.heartbeat = seconds(valueOf(schema::changeTable, row, schema::changeHeartbeat)->getInteger());
    std::vector<std::pair<std::int32_t, std::chrono::system_clock::time_point>> changes;
    for (const ovsdb::Row& row : cache.rows(schema::historyTable)) {
        const auto time = valueOf(schema::historyTable, row, schema::history::time);
        if (const auto made = time ? text::parseUtcTime(time->getText()) : std::nullopt)
            changes.emplace_back(valueOf(schema::historyTable, row, schema::history::number)->getInteger(), *made);
    }
    std::ranges::sort(changes, std::greater());
    for (const auto& [number, made] : changes)
        reference.changes.push_back(made);
    return reference;
}

} // namespace

DeviceState stateOf(const Device& device, const Reference& reference)
{
    DeviceState state;
    if (!device.reports()) {
        state.standing = device.reason.empty() ? Standing::Unheard : Standing::Stopped;
        state.time = since(device.inStepSince, reference);
        return state;
    }
    const bool counted = reference.number && !device.hasReached(*reference.number);
    if (counted)
        findBehind(device, reference, state);
    else if (reference.number)
        state.behind = 0;

    const std::optional<seconds> silent = since(device.seen, reference);
    const bool isSilent =
        reference.heartbeat != seconds(0) && silent && *silent > missedHeartbeats * reference.heartbeat + onTheWay;
    if (isSilent || !device.inStep) {
        state.standing = isSilent ? Standing::Silent : Standing::NotInStep;
        state.time = isSilent ? silent : since(device.inStepSince, reference);
        state.atLeast = false;
    } else if (!counted) {
        state.standing = device.notInForceCount == 0 ? Standing::InForce : Standing::InPart;
        state.time = since(device.since, reference);
    }
    return state;
}

std::vector<StandingDevice> standingDevices(const ovsdb::TableCache& cache, std::chrono::system_clock::time_point now)
{
    const Reference reference = referenceOf(cache, now);
    std::vector<StandingDevice> standing;
    bool anyReports = false;
    for (Device& device : devicesOf(cache)) {
        anyReports = anyReports || device.reports();
        DeviceState state = stateOf(device, reference);
        standing.push_back({std::move(device), state});
    }
    for (StandingDevice& each : standing)
        each.counts = each.device.reports() || !anyReports;
    return standing;
}

DeviceWatch::DeviceWatch(const std::vector<StandingDevice>& before, std::int32_t change) : m_change(change)
{
    for (const auto& [device, state, counts] : before) {
        if (device.hasReached(change) && state.standing != Standing::Silent) // by a clock that is behind
            m_devices.push_back(
                {.name = device.name, .notInForceCount = device.notInForceCount, .started = device.started});
    }
}

std::vector<std::string> DeviceWatch::look(const std::vector<StandingDevice>& now)
{
    m_away.clear();
    std::vector<std::string> losses;
    for (Watched& watched : m_devices) {
        const auto found = std::ranges::lower_bound(now, watched.name, {},
                                                    [](const StandingDevice& each) { return each.device.name; });
        if (found == now.end() || found->device.name != watched.name)
            losses.push_back(text::oneLine(watched.name) + " has no row any more");
        else
            look(watched, *found, losses);
    }
    return losses;
}

void DeviceWatch::look(Watched& watched, const StandingDevice& now, std::vector<std::string>& losses)
{
    const auto& [device, state, counts] = now;
    const std::string name = text::oneLine(device.name);
    const std::string reason = device.reason.empty() ? "" : ": " + text::oneLine(device.reason, longestLoss);
    if (device.reports() && device.started != watched.started) {
        watched.started = device.started;
        watched.away = true;
        if (++watched.starts > mostStarts)
            losses.push_back(name + " was started " + std::to_string(watched.starts) + " times");
    }
    watched.away = watched.away || !device.reports();

    std::vector<std::string>& wrong = watched.away ? m_away : losses;
    if (!device.reports())
        wrong.push_back(name + " does not apply it any more" + reason);
    else if (state.standing == Standing::Silent)
        losses.push_back(name + " is silent" + (state.time ? " for " + inWords(*state.time) : std::string()));
    else if (!device.inStep)
        wrong.push_back(name + " is not in step" + reason);
    else if (!device.hasReached(m_change))
        wrong.push_back(name + " does not have it in force any more");
    else if (device.notInForceCount > watched.notInForceCount)
        losses.push_back(name + " refuses " + std::to_string(device.notInForceCount - watched.notInForceCount) +
                         " lines more");
    else
        watched.away = false;
}

const char* nameOf(Standing standing)
{
    switch (standing) {
    case Standing::InForce:
        return "in force";
    case Standing::InPart:
        return "in part";
    case Standing::Behind:
        return "behind";
    case Standing::NotInStep:
        return "not in step";
    case Standing::Silent:
        return "silent";
    case Standing::Stopped:
        return "stopped";
    case Standing::Unheard:
        return "unheard of";
    }
    return "";
}

std::string inWords(std::chrono::seconds time)
{
    constexpr std::array units{std::pair(86'400, "d"), std::pair(3'600, "h"), std::pair(60, "min"), std::pair(1, "s")};
    auto rest = std::max<std::chrono::seconds::rep>(time.count(), 0);
    for (std::size_t i = 0; i + 1 < units.size(); ++i) {
        const auto [size, name] = units[i];
        if (rest < size)
            continue;
        const auto [smallerSize, smallerName] = units[i + 1];
        const auto smaller = rest % size / smallerSize;
        return std::to_string(rest / size) + ' ' + name +
               (smaller != 0 ? ' ' + std::to_string(smaller) + ' ' + smallerName : std::string());
    }
    return std::to_string(rest) + " s";
}

} // namespace moatctl
