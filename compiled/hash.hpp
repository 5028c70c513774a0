// A number for a text that stays the same, whatever else there is: for names and marks.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace compiled
{

// The same on every machine of one byte order. begin: what came out for the text before this one.
inline std::uint64_t hashOf(std::string_view text, std::uint64_t begin = 0xcbf29ce484222325)
{
    constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
    const auto mix = [](std::uint64_t hash, std::uint64_t word) {
        hash = (hash ^ word) * odd;
        return hash ^ hash >> 32U;
    };
    std::uint64_t hash = mix(begin, text.size());
    for (; text.size() >= sizeof hash; text.remove_prefix(sizeof hash)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data(), sizeof word);
        hash = mix(hash, word);
    }
    std::uint64_t rest = 0;
    if (!text.empty())
        std::memcpy(&rest, text.data(), text.size());
    return mix(mix(hash, rest), 0);
}

} // namespace compiled
