// What keys have in common: their parts, and which bits of them count.
#pragma once

#include "compiled/key.hpp"

#include <algorithm>
#include <compare>
#include <span>
#include <string>
#include <vector>

namespace compiled
{

struct Form {
    Family family = Family::Any;
    std::vector<Part> parts;
    Bytes mask;
    auto operator<=>(const Form&) const = default;
};

inline Form formOf(const RuleKey& key)
{
    return {key.family, key.parts, key.mask};
}

// Calls visit(part, its mask) for each part, until one returns false.
bool allParts(const RuleKey& key, const auto& visit)
{
    std::span<const std::uint8_t> rest = key.mask;
    return std::ranges::all_of(key.parts, [&](Part part) {
        const std::span<const std::uint8_t> mask = rest.first(fieldOf(part).size);
        rest = rest.subspan(mask.size());
        return visit(part, mask);
    });
}

std::string nameOfParts(const RuleKey& key); // "ip4.ip-src.dport"
std::string nameOfForm(const RuleKey& key);  // with the mask, if there is one: "src-ffffff000000"

// The same for the same text, whatever else there is.
std::string shortNameFor(const std::string& text);

} // namespace compiled
