#include "platform_linux/delivery_names.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace zol::cfg
{

namespace
{

constexpr std::array<std::string_view, 2> readTogether{"MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"};

bool isReadTogether(const std::string& name)
{
    return std::ranges::find(readTogether, name) != readTogether.end();
}

} // namespace

std::vector<std::string> deliveryNames(const std::vector<std::string>& subscribed, const std::set<std::string>& changed)
{
    std::vector<std::string> names;
    for (const std::string& name : subscribed) {
        if (!changed.contains(name) || (isReadTogether(name) && std::ranges::any_of(names, isReadTogether)))
            continue;
        names.push_back(name);
    }
    return names;
}

} // namespace zol::cfg
