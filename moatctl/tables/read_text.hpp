// The text of a file that the operator names, whatever it turns out to be.
#pragma once

#include <chrono>
#include <cstddef>
#include <iosfwd>
#include <string>

namespace moatctl
{

struct ReadLimits {
    // 100,000 rules with the longest values in every column are 50 MB as export writes them.
    std::size_t bytes = std::size_t{256} << 20;
    // How long a pipe or a device may be silent. Standard input may be for ever: somebody may be typing.
    std::chrono::milliseconds silence{60'000};
};

// Of standard input for "-". Throws Failure(BadInput) when it cannot be read or goes beyond the limits.
std::string readText(std::istream& standardInput, const std::string& path, const ReadLimits& limits = {});

// How the file is called in messages.
std::string nameOf(const std::string& path);

} // namespace moatctl
