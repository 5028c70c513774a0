// Points in time as text.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace text
{

// UTC with milliseconds: 2026-01-31T12:00:00.123Z.
std::string utcTime(std::chrono::system_clock::time_point time);

// The way back. Nothing when the text is not of that form.
std::optional<std::chrono::system_clock::time_point> parseUtcTime(const std::string& text);

} // namespace text
