// A number for a text that stays the same, whatever else there is: for names and marks.
#pragma once

#include <cstdint>
#include <string_view>

namespace compiled
{

// FNV-1a. begin: what came out for the text before this one.
inline std::uint64_t hashOf(std::string_view text, std::uint64_t begin = 0xcbf29ce484222325)
{
    for (const char c : text)
        begin = (begin ^ static_cast<std::uint8_t>(c)) * 0x100000001b3;
    return begin;
}

} // namespace compiled
