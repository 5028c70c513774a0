#include "text/utc_time.hpp"

#include <array>
#include <cstdio>
#include <ctime>

namespace text
{

std::string utcTime(std::chrono::system_clock::time_point time)
{
    using namespace std::chrono;
    const auto whole = floor<seconds>(time);
    const std::time_t since = system_clock::to_time_t(whole);
    std::tm parts{};
    gmtime_r(&since, &parts);
    std::array<char, 64> result{};
    const std::size_t length = std::strftime(result.data(), result.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(result.data() + length, result.size() - length, ".%03dZ",
                  static_cast<int>(duration_cast<milliseconds>(time - whole).count()));
    return result.data();
}

std::optional<std::chrono::system_clock::time_point> parseUtcTime(const std::string& text)
{
    using namespace std::chrono;
    int year = 0;
    std::array<int, 5> part{}; // signed: "-9" must not become a number without end
    int milli = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ", &year, &part[0], &part[1], &part[2], &part[3],
                    &part[4], &milli) != 7)
        return std::nullopt;
    const year_month_day day{std::chrono::year(year), month(static_cast<unsigned>(part[0])),
                             std::chrono::day(static_cast<unsigned>(part[1]))};
    if (!day.ok())
        return std::nullopt;
    const system_clock::time_point time =
        sys_days(day) + hours(part[2]) + minutes(part[3]) + seconds(part[4]) + milliseconds(milli);
    return utcTime(time) == text ? std::optional(time) : std::nullopt;
}

} // namespace text
