#include "text/one_line.hpp"

namespace text
{

namespace
{

std::string visible(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c >= ' ' && c <= '~')
            result += c;
        else
            result += escaped(c);
    }
    return result;
}

} // namespace

std::string oneLine(std::string_view text, std::size_t limit)
{
    return visible(text.substr(0, limit)) + (text.size() > limit ? "..." : "");
}

std::string inQuotes(std::string_view text, std::size_t limit)
{
    return '"' + visible(text.substr(0, limit)) + (text.size() > limit ? "\"..." : "\"");
}

std::string escaped(char byte)
{
    constexpr std::string_view digits = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    return {'\\', 'x', digits[value >> 4], digits[value & 15]};
}

} // namespace text
