#include "compiled/form.hpp"

#include "compiled/hash.hpp"

#include <algorithm>
#include <cstdint>

namespace compiled
{

namespace
{

constexpr const char* digits = "0123456789abcdef";
constexpr std::size_t longestMask = 16; // that a name shows as it is: the kernel's names end somewhere

// An id of a tag is always masked alike.
bool isWhole(const RuleKey& key)
{
    return allParts(key, [](Part part, std::span<const std::uint8_t> mask) {
        return part == Part::VlanId || std::ranges::all_of(mask, [](std::uint8_t byte) { return byte == 0xff; });
    });
}

} // namespace

std::shared_ptr<const Form> Forms::of(const RuleKey& key)
{
    if (const auto found = m_known.find(&key); found != m_known.end())
        return found->second;
    const std::size_t number = m_free.empty() ? m_numbers : m_free.back();
    auto form = std::make_shared<const Form>(Form{key, nameOfForm(key), number});
    m_known.emplace(&form->like, form);
    if (m_free.empty())
        ++m_numbers;
    else
        m_free.pop_back();
    return form;
}

void Forms::dropUnused()
{
    std::erase_if(m_known, [this](const auto& known) {
        const bool isUnused = known.second.use_count() == 1;
        if (isUnused)
            m_free.push_back(known.second->number);
        return isUnused;
    });
}

std::string nameOfParts(const RuleKey& key)
{
    std::string name = key.family == Family::Ip4    ? "ip4"
                       : key.family == Family::Ip6  ? "ip6"
                       : key.family == Family::Vlan ? "tag"
                                                    : "";
    for (const Part part : key.parts)
        name.append(name.empty() ? "" : ".").append(nameOf(part));
    return name;
}

std::string nameOfForm(const RuleKey& key)
{
    std::string name = nameOfParts(key);
    if (isWhole(key))
        return name;
    std::string mask;
    for (const std::uint8_t byte : key.mask) {
        mask += digits[byte >> 4U];
        mask += digits[byte & 15U];
    }
    return name + "-" + (key.mask.size() <= longestMask ? mask : shortNameFor(mask));
}

std::string shortNameFor(const std::string& text)
{
    const std::uint64_t hash = hashOf(text);
    std::string name;
    for (int shift = 60; shift >= 0; shift -= 4)
        name += digits[hash >> static_cast<unsigned>(shift) & 15U];
    return name;
}

} // namespace compiled
