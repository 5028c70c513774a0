#include "schema/device.hpp"

#include <algorithm>

namespace schema
{

bool isDeviceName(std::string_view text)
{
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
    return !text.empty() && text.size() <= maximumDeviceName &&
           std::ranges::all_of(text, [&](char c) { return allowed.find(c) != std::string_view::npos; });
}

} // namespace schema
