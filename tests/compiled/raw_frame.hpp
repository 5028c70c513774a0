// A frame as bytes, and whether a rule matches it: what the kernel's own matches read where.
#pragma once

#include "ebtables/command.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace test
{

using Bytes = std::vector<std::uint8_t>;

// As the chains see it: a tag is taken out of the bytes when the frame comes in.
struct RawFrame {
    std::string in;
    std::string out; // empty: for the device itself
    Bytes addresses; // destination and source
    std::optional<std::uint16_t> tag;
    std::uint16_t type = 0; // behind the tag
    Bytes data;             // behind the type

    Bytes link() const; // with the tag in its place
};

bool matches(const ebtables::Rule& rule, const RawFrame& frame);

} // namespace test
