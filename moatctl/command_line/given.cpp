#include "moatctl/command_line/given.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/values.hpp"

#include <algorithm>

namespace moatctl
{

bool Given::hasOtherThan(std::initializer_list<std::string_view> options) const
{
    return std::ranges::any_of(
        m_values, [&](const auto& value) { return std::ranges::find(options, value.first) == options.end(); });
}

std::int32_t Given::id(const std::string& option) const
{
    return ids(option).front();
}

std::vector<std::int32_t> Given::ids(const std::string& option) const
{
    std::vector<std::int32_t> result;
    for (const std::string& text : values(option)) {
        const auto number = parseNumber(text);
        if (!number || *number < 1)
            throw Failure(ExitStatus::BadInput, option + ' ' + inQuotes(text) + ": expected " +
                                                    std::string(schema::expectedValue(ValueKind::Id)));
        result.push_back(*number);
    }
    return result;
}

} // namespace moatctl
