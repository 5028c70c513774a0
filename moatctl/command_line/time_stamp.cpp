#include "moatctl/command_line/time_stamp.hpp"

#include <array>
#include <cstdio>
#include <ctime>

namespace moatctl
{

std::string timeStamp(std::chrono::sys_time<std::chrono::nanoseconds> time)
{
    using namespace std::chrono;
    const auto whole = floor<seconds>(time);
    const auto since = static_cast<std::time_t>(whole.time_since_epoch().count());
    const auto milli = duration_cast<milliseconds>(time - whole).count();
    std::tm local{};
    localtime_r(&since, &local);
    std::array<char, 32> date{};
    std::array<char, 16> offset{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(offset.data(), offset.size(), "%z", &local);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%s.%03d%.3s:%s", date.data(), static_cast<int>(milli), offset.data(),
                  offset.data() + 3);
    return text.data();
}

} // namespace moatctl
