#include "moatctl/tables/kernel_order.hpp"

#include "handler/priority_order.hpp"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace moatctl
{

std::vector<const Row*> inKernelOrder(const Configuration& configuration, TableId table)
{
    std::vector<const Row*> rows;
    rows.reserve(configuration.rows(table).size());
    for (const Row& row : configuration.rows(table))
        rows.push_back(&row);

    if (table == TableId::Rules) {
        std::ranges::stable_sort(rows, zol::moatkeeper::comesBeforeAsRule,
                                 [](const Row* row) { return row->integer("RulePrio"); });
    } else if (table == TableId::Filters) {
        std::ranges::stable_sort(rows, zol::moatkeeper::comesBeforeAsFilter,
                                 [](const Row* row) { return row->integer("Prio"); });
        std::ranges::reverse(rows); // the one set up last stands first
    } else if (table == TableId::FilterRules) {
        std::unordered_map<std::int32_t, std::size_t> places;
        for (const Row* filter : inKernelOrder(configuration, TableId::Filters))
            places.emplace(filter->id(), places.size());
        std::ranges::stable_sort(rows, {}, [&places](const Row* row) {
            const auto it = places.find(row->integer("BridgeFilterID"));
            return it != places.end() ? it->second : std::numeric_limits<std::size_t>::max();
        });
    }
    return rows;
}

} // namespace moatctl
