// What the tests of the records share: rows of hostile texts, and taking what was logged.
#pragma once

#include "platform_fake/captured_log.hpp"

#include <cstdint>
#include <limits>
#include <stdexcept>
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

// A record says whether it differs, and does not offer an equality that leaves values out.
template <typename Record>
concept OnlyDiffers = requires(const Record& record)
{
    record != record;
}
&&!requires(const Record& record)
{
    record == record;
};

// Makes two records that log, with another log handle for each, and returns whether they differ.
template <typename Make>
bool differWithOtherLogHandles(const Make& make)
{
    fake::capturedLog().reset();
    const auto first = make();
    const std::uint32_t firstHandle = fake::capturedLog().takeLines().at(0).module;
    fake::capturedLog().reset();
    fake::capturedLog().registerModule("another");
    const auto second = make();
    const std::uint32_t secondHandle = fake::capturedLog().takeLines().at(0).module;
    if (firstHandle == secondHandle)
        throw std::logic_error("the records have the same log handle");
    return first != second;
}

} // namespace recordtest
