// What keys have in common: their parts, and which bits of them count.
#pragma once

#include "compiled/key.hpp"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <tuple>
#include <vector>

namespace compiled
{

// Orders keys by what they have in common with others of their form: family, parts and mask, not the value.
struct ByForm {
    bool operator()(const RuleKey* one, const RuleKey* other) const
    {
        return std::tie(one->family, one->parts, one->mask) < std::tie(other->family, other->parts, other->mask);
    }
};

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

// The form that keys are of, once for all of them.
struct Form {
    RuleKey like; // the first key of this form
    std::string name;
    std::size_t number = 0; // no other form that is in use has it; they are small
};

class Forms
{
public:
    std::shared_ptr<const Form> of(const RuleKey& key);
    void dropUnused();
    std::size_t numbers() const { return m_numbers; } // all are below this

private:
    std::map<const RuleKey*, std::shared_ptr<const Form>, ByForm> m_known;
    std::size_t m_numbers = 0;
    std::vector<std::size_t> m_free; // numbers
};

std::string nameOfParts(const RuleKey& key); // "ip4.ip-src.dport"
std::string nameOfForm(const RuleKey& key);  // with the mask, if there is one: "src-ffffff000000"

// The same for the same text, whatever else there is.
std::string shortNameFor(const std::string& text);

} // namespace compiled
