#include "schema/server/trial.hpp"

#include "schema/device.hpp"
#include "schema/history.hpp"
#include "schema/server/recorded_change.hpp"
#include "schema/server/row_sum.hpp"
#include "text/small_file.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <string_view>
#include <utility>

namespace schema
{

namespace
{

using ovsdb::Json;
using std::chrono::milliseconds;

Json waitFor(const ovsdb::Where& where, Json::Array rows)
{
    return Json::Object{{"op", "wait"},
                        {"table", trialTable},
                        {"where", where},
                        {"until", "=="},
                        {"timeout", 0},
                        {"columns", Json(Json::Array{Json(trial::change)})},
                        {"rows", Json(std::move(rows))}};
}

std::optional<milliseconds> millisecondsOf(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || number < 0)
        return std::nullopt;
    return milliseconds(number);
}

milliseconds elapsed(const Trial& trial, const Clocks& now)
{
    const auto uptime = millisecondsOf(trial.uptime);
    if (uptime && !now.boot.empty() && trial.boot == now.boot)
        return now.uptime - *uptime;
    const auto began = text::parseUtcTime(trial.began);
    // Nobody can tell: all of the time.
    return began ? std::chrono::floor<milliseconds>(now.wall - *began) : milliseconds(0);
}

} // namespace

Clocks readClocks()
{
    Clocks clocks;
    clocks.boot = text::readSmallFile("/proc/sys/kernel/random/boot_id");
    clocks.boot.erase(std::min(clocks.boot.find('\n'), clocks.boot.size()));
    std::timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    clocks.uptime = std::chrono::duration_cast<milliseconds>(std::chrono::seconds(time.tv_sec) +
                                                             std::chrono::nanoseconds(time.tv_nsec));
    clocks.wall = std::chrono::system_clock::now();
    return clocks;
}

std::optional<Trial> trialOf(const ovsdb::TableCache& state)
{
    const ovsdb::Table* table = state.find(trialTable);
    if (table == nullptr || state.rows(trialTable).empty())
        return std::nullopt;
    const ovsdb::Row& row = state.rows(trialTable).front();
    const auto text = [&](std::string_view column) { return ovsdb::TableCache::value(*table, row, column)->getText(); };
    const auto number = [&](std::string_view column) {
        return ovsdb::TableCache::value(*table, row, column)->getInteger();
    };
    return Trial{.uuid = row.uuid,
                 .change = number(trial::change),
                 .seconds = number(trial::seconds),
                 .began = text(trial::began),
                 .boot = text(trial::boot),
                 .uptime = text(trial::uptime),
                 .user = text(trial::user),
                 .verb = text(trial::verb),
                 .changes = text(trial::changes)};
}

milliseconds remaining(const Trial& trial, const Clocks& now)
{
    const milliseconds all = std::chrono::seconds(std::max(trial.seconds, 0)); // not every server checks its rows
    return std::clamp(all - elapsed(trial, now), milliseconds(0), all);
}

Json beginTrial(const Trial& trial, const Clocks& now)
{
    ovsdb::ColumnValues row;
    const auto add = [&row](std::string_view column, auto value) {
        row.emplace_back(std::string(column), tessera::Value(std::move(value)));
    };
    add(trial::change, trial.change);
    add(trial::seconds, trial.seconds);
    add(trial::began, text::utcTime(now.wall));
    add(trial::boot, now.boot);
    add(trial::uptime, std::to_string(now.uptime.count()));
    add(trial::user, trial.user);
    add(trial::verb, trial.verb);
    add(trial::changes, trial.changes);
    return ovsdb::insertRow(trialTable, row);
}

Json requireNoTrial()
{
    return waitFor(ovsdb::everyRow(), {});
}

Json requireTrial(const Trial& trial)
{
    return waitFor(ovsdb::rowWithUuid(trial.uuid),
                   {Json(Json::Object{{std::string(trial::change), Json(trial.change)}})});
}

Json endTrial(const Trial& trial)
{
    return ovsdb::deleteRows(trialTable, ovsdb::rowWithUuid(trial.uuid));
}

std::vector<Json> putBack(const Trial& trial, const ovsdb::TableCache& state,
                          const std::optional<ovsdb::ColumnValues>& entry)
{
    std::vector<RecordedChange> changes = parseRecordedChanges(trial.changes);
    std::vector<Json> operations{requireTrial(trial)};
    for (Json& operation : operationsBack(changes))
        operations.push_back(std::move(operation));
    operations.push_back(endTrial(trial));
    if (entry) {
        for (RecordedChange& change : changes)
            std::swap(change.before, change.after);
        ovsdb::ColumnValues row = *entry;
        row.emplace_back(history::number, tessera::Value(trial.change + 1));
        row.emplace_back(history::rows, tessera::Value(static_cast<std::int32_t>(changes.size())));
        row.emplace_back(history::changes, tessera::Value(toText(changes)));
        row.emplace_back(history::undoes, tessera::Value(trial.change));
        row.emplace_back(history::sum, tessera::Value(sumText(sumAfter(state, changes))));
        operations.push_back(ovsdb::insertRow(historyTable, row));
    }
    for (Json& operation : ovsdb::countUp(changeTable, changeNumber, changeNumbers))
        operations.push_back(std::move(operation));
    return operations;
}

} // namespace schema
