#include "moatctl/command_line/numbers.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/problem.hpp"

#include <charconv>
#include <cmath>
#include <system_error>

namespace moatctl
{

namespace
{

template <typename Number>
bool read(const std::string& text, Number& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

[[noreturn]] void wrong(std::string_view option, const std::string& text, const std::string& expected)
{
    throw Failure(ExitStatus::BadInput, std::string(option) + ' ' + inQuotes(text) + ": expected " + expected);
}

} // namespace

std::chrono::milliseconds secondsOf(std::string_view option, const std::string& text, int most)
{
    double seconds = 0;
    if (!read(text, seconds) || !(seconds > 0) || seconds > most)
        wrong(option, text, "seconds, more than 0 and at most " + std::to_string(most));
    return std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(seconds * 1000)));
}

std::uint64_t countOf(std::string_view option, const std::string& text, std::uint64_t most)
{
    std::uint64_t count = 0;
    if (!read(text, count) || count == 0 || count > most)
        wrong(option, text, "a number from 1 to " + std::to_string(most));
    return count;
}

} // namespace moatctl
