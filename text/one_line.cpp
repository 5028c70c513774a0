#include "text/one_line.hpp"

namespace text
{

namespace
{

std::string visible(std::string_view text)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            result += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        result += "\\x";
        result += digits[byte >> 4];
        result += digits[byte & 15];
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

} // namespace text
