// Points in time for people and programs.
#pragma once

#include <chrono>
#include <string>

namespace moatctl
{

// Local time with milliseconds and offset: 2026-01-31T12:00:00.123+01:00.
std::string timeStamp(std::chrono::sys_time<std::chrono::nanoseconds> time);

} // namespace moatctl
