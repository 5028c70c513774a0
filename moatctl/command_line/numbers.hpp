// Numbers on the command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace moatctl
{

// Whole or not, more than 0. Throws Failure(BadInput), one line that names the option.
std::chrono::milliseconds secondsOf(std::string_view option, const std::string& text, int most);

// A whole number from 1. Likewise.
std::uint64_t countOf(std::string_view option, const std::string& text, std::uint64_t most = 1'000'000'000);

} // namespace moatctl
