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

} // namespace text
