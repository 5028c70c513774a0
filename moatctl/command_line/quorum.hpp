// On how many devices a change is to be in force.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace moatctl
{

struct Quorum {
    std::size_t number = 0;    // 0: the percentage decides
    std::size_t percent = 100; // from 1 to 100; what is not whole is one more

    // Of so many devices that count; at least 1.
    std::size_t of(std::size_t devices) const;
    bool operator==(const Quorum&) const = default;
};

// "all", "20" or "95%". Nothing for other texts.
std::optional<Quorum> parseQuorum(const std::string& text);

std::string toText(const Quorum& quorum);

} // namespace moatctl
