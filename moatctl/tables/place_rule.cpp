#include "moatctl/tables/place_rule.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/kernel_order.hpp"

#include <algorithm>
#include <limits>

namespace moatctl
{

namespace
{

constexpr std::int64_t lowestPriority = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t highestPriority = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t step = 10; // at both ends of the list

std::int64_t priorityOf(const Row* row)
{
    return row->integer("RulePrio");
}

// A priority between two others, as far from both as may be; none when there is no room.
std::optional<std::int64_t> between(std::optional<std::int64_t> low, std::optional<std::int64_t> high)
{
    std::int64_t middle = step;
    if (low && high)
        middle = *low + (*high - *low) / 2;
    else if (low)
        middle = std::min(*low + step, highestPriority);
    else if (high && *high > 1)
        middle = *high / 2;
    else if (high)
        middle = std::max(*high - step, lowestPriority);
    if (middle == 0)
        middle = low && *low == -1 ? 1 : -1;
    if ((low && middle <= *low) || (high && middle >= *high))
        return std::nullopt;
    return middle;
}

} // namespace

void placeBeside(Editor& editor, Row& row, std::int32_t anchorId, bool before)
{
    Configuration& configuration = editor.configuration;
    const std::int32_t id = row.id();
    if (id == anchorId)
        throw Failure(ExitStatus::BadInput, "rule " + std::to_string(id) + " cannot be moved next to itself");
    if (configuration.find(TableId::Rules, anchorId) == nullptr)
        throw Failure(ExitStatus::Conflict, "there is no rule " + std::to_string(anchorId));

    std::vector<const Row*> order = inKernelOrder(configuration, TableId::Rules);
    std::erase_if(order, [id](const Row* other) { return other->id() == id; });
    auto place = std::ranges::find(order, anchorId, [](const Row* other) { return other->id(); });
    if (!before)
        ++place;

    std::optional<std::int64_t> low;
    std::optional<std::int64_t> high;
    if (place != order.begin()) {
        low = priorityOf(*(place - 1));
        editor.reliesOn(TableId::Rules, (*(place - 1))->id());
    }
    if (place != order.end()) {
        high = priorityOf(*place);
        editor.reliesOn(TableId::Rules, (*place)->id());
    }
    std::optional<std::int64_t> priority = between(low, high);
    if (!priority) {
        std::int64_t last = low ? *low + 1 : *high; // without a low end the list begins at the smallest number
        last += last == 0 ? 1 : 0;
        priority = last;
        for (; place != order.end() && priorityOf(*place) <= last && last < highestPriority; ++place) {
            ++last;
            last += last == 0 ? 1 : 0;
            configuration.find(TableId::Rules, (*place)->id())->set("RulePrio", static_cast<std::int32_t>(last));
        }
        if (last > highestPriority || (place != order.end() && priorityOf(*place) <= last))
            throw Failure(ExitStatus::Conflict, "there is no free priority after rule " + std::to_string(anchorId));
    }
    row.set("RulePrio", static_cast<std::int32_t>(*priority));
}

} // namespace moatctl
