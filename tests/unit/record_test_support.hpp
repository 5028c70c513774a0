// What the tests of the records share: rows of hostile texts, and taking what was logged.
#pragma once

#include "platform_fake/captured_log.hpp"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace recordtest
{

inline const std::vector<std::int32_t> integers = {
    std::numeric_limits<std::int32_t>::min(), -65536, -2, -1, 0, 1, 4094, 4095, 4096, 65536,
    std::numeric_limits<std::int32_t>::max()};

// Empty, long, bytes of every value (the one that ends a C string aside), blanks, quotes, shell syntax.
inline std::vector<std::string> texts()
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return {"",
            " ",
            std::string(65536, 'x'),
            std::string(65536, '\xff'),
            bytes,
            "a b",
            "\"",
            "'",
            "\\",
            "\n",
            "%s%n%d",
            "$(id)",
            "`id`",
            "; ebtables -F",
            "--atomic-file",
            "eth0"};
}

// The lines logged since the last call as "level label:line text", trace lines left out.
inline std::vector<std::string> takeLog()
{
    std::vector<std::string> lines;
    for (const fake::LogLine& line : fake::capturedLog().takeLines()) {
        if (line.level != fake::LogLevel::trace)
            lines.push_back(std::string(fake::toString(line.level)) + " " + line.label + ":" +
                            std::to_string(line.line) + " " + line.text);
    }
    return lines;
}

} // namespace recordtest
