#include "moatctl/tables/devices.hpp"

#include "ovsdb/client.hpp"
#include "schema/device.hpp"

#include <algorithm>
#include <string_view>

namespace moatctl
{

namespace
{

// A list with a line for each: "line TAB reason".
std::vector<DeviceLine> split(std::string_view list)
{
    std::vector<DeviceLine> lines;
    while (!list.empty()) {
        const std::string_view one = list.substr(0, list.find('\n'));
        const std::size_t tab = std::min(one.find('\t'), one.size());
        lines.push_back({std::string(one.substr(0, tab)), std::string(one.substr(std::min(tab + 1, one.size())))});
        list.remove_prefix(std::min(one.size() + 1, list.size()));
    }
    return lines;
}

} // namespace

bool Device::hasReached(std::int32_t change) const
{
    return reports() && schema::includes(number, change);
}

std::vector<DeviceLine> Device::lines() const
{
    return split(notInForce);
}

std::vector<Device> devicesOf(const ovsdb::TableCache& cache)
{
    namespace device = schema::device;
    std::vector<Device> devices;
    const ovsdb::Table* table = cache.find(schema::deviceTable);
    if (table == nullptr)
        return devices;
    for (const ovsdb::Row& row : cache.rows(schema::deviceTable)) {
        // Not every copy has all columns.
        const auto text = [&](std::string_view column) {
            const auto value = ovsdb::TableCache::value(*table, row, column);
            return value ? value->getText() : std::string();
        };
        const auto number = [&](std::string_view column) {
            return ovsdb::TableCache::value(*table, row, column)->getInteger();
        };
        devices.push_back({.name = text(device::name),
                           .number = number(device::number),
                           .since = text(device::since),
                           .inStep = number(device::inStep) != 0,
                           .inStepSince = text(device::inStepSince),
                           .reason = text(device::reason),
                           .rules = number(device::rules),
                           .notInForce = text(device::notInForce),
                           .notInForceCount = static_cast<std::size_t>(number(device::notInForceCount)),
                           .repaired = text(device::repaired),
                           .repairedWhat = text(device::repairedWhat),
                           .engine = text(device::engine),
                           .version = text(device::version),
                           .started = text(device::started),
                           .seen = text(device::seen)});
    }
    std::ranges::sort(devices, {}, &Device::name);
    return devices;
}

// Asked with each word of each device: looks at two columns only.
Reached reached(const ovsdb::TableCache& cache, std::int32_t change)
{
    const ovsdb::Table* table = cache.find(schema::deviceTable);
    if (table == nullptr)
        return {};
    const std::size_t number = *table->find(schema::device::number);
    const std::size_t started = *table->find(schema::device::started);
    const auto rows = cache.rows(schema::deviceTable);
    Reached result;
    for (const ovsdb::Row& row : rows) {
        if (row.values.text(started).empty())
            continue;
        ++result.devices;
        result.reached += schema::includes(row.values.integer(number), change) ? 1 : 0;
    }
    return result.devices != 0 ? result : Reached{.devices = rows.size(), .reached = 0};
}

std::optional<std::int32_t> changeNumberOf(const ovsdb::TableCache& cache)
{
    const auto rows = cache.rows(schema::changeTable);
    return rows.empty() ? std::nullopt : std::optional(rows.front().values.integer(0));
}

bool tellsWhatIsInForce(const ovsdb::Client& client)
{
    const auto has = [&client](std::string_view table) {
        return std::ranges::find(client.tableNames(), table) != client.tableNames().end();
    };
    return has(schema::changeTable) && has(schema::deviceTable);
}

} // namespace moatctl
