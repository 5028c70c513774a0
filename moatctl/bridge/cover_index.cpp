#include "moatctl/bridge/cover_index.hpp"

#include <algorithm>
#include <cstring>
#include <span>
#include <stdexcept>

namespace moatctl
{

namespace
{

using ebtables::Rule;

std::uint64_t hashOf(const auto& value, const auto& mask)
{
    constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
    std::uint64_t hash = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        hash = (hash ^ (value[i] & mask[i])) * odd;
        hash ^= hash >> 29;
    }
    return hash;
}

} // namespace

// The bits that a conjunction fixes, and their values.
struct CoverIndex::Flat {
    explicit Flat(const Conjunction& conjunction) : m_conjunction(conjunction)
    {
        name([](const Rule& rule) -> auto& { return rule.in; });
        name([](const Rule& rule) -> auto& { return rule.out; });
        masked([](const Rule& rule) -> auto& { return rule.source; });
        masked([](const Rule& rule) -> auto& { return rule.destination; });
        masked([](const Rule& rule) -> auto& { return rule.ip.source; });
        masked([](const Rule& rule) -> auto& { return rule.ip.destination; });
        masked([](const Rule& rule) -> auto& { return rule.ip6.source; });
        masked([](const Rule& rule) -> auto& { return rule.ip6.destination; });
        number([](const Rule& rule) -> auto& { return rule.vlan.id; });
        number([](const Rule& rule) -> auto& { return rule.ip.protocol; });
        number([](const Rule& rule) -> auto& { return rule.ip.destinationPort; });
        number([](const Rule& rule) -> auto& { return rule.ip6.protocol; });
        number([](const Rule& rule) -> auto& { return rule.ip6.destinationPort; });
        type([](const Rule& rule) -> auto& { return rule.ethertype; });
        type([](const Rule& rule) -> auto& { return rule.vlan.encapsulated; });
    }

    Bits value{};
    Bits mask{};

private:
    // The first match of the kind that is not negated.
    const auto* find(const auto& of) const
    {
        const auto positive = [&](const Rule* rule) { return of(*rule) && !of(*rule)->negated; };
        const auto found = std::ranges::find_if(m_conjunction, positive);
        return found != m_conjunction.end() ? &*of(**found) : nullptr;
    }

    // Each kind of match has its place, whether it is there or not.
    void put(std::size_t size, const void* bytes, const void* maskBytes)
    {
        if (m_used + size > sizeof value)
            throw std::logic_error("a conjunction has more values than there is room for");
        if (bytes != nullptr) {
            std::memcpy(reinterpret_cast<char*>(value.data()) + m_used, bytes, size);
            std::memcpy(reinterpret_cast<char*>(mask.data()) + m_used, maskBytes, size);
        }
        m_used += size;
    }

    void name(const auto& of)
    {
        std::array<char, 16> bytes{};
        std::array<char, 16> all{};
        all.fill('\xff');
        const auto* match = find(of);
        const bool exact = match != nullptr && !match->prefix && match->name.size() <= bytes.size();
        if (exact)
            std::ranges::copy(match->name, bytes.begin());
        put(bytes.size(), exact ? bytes.data() : nullptr, all.data());
    }

    void masked(const auto& of)
    {
        const auto* match = find(of);
        using Match = std::remove_cvref_t<decltype(*match)>;
        put(sizeof(Match::address), match != nullptr ? match->address.data() : nullptr,
            match != nullptr ? match->mask.data() : nullptr);
    }

    void number(const auto& of)
    {
        const auto* match = find(of);
        constexpr std::uint16_t all = 0xffff;
        const bool exact = match != nullptr && match->first == match->last;
        const auto only = static_cast<std::uint16_t>(exact ? match->first : 0);
        put(sizeof only, exact ? &only : nullptr, &all);
    }

    void type(const auto& of)
    {
        const auto* match = find(of);
        constexpr std::uint16_t all = 0xffff;
        const bool exact = match != nullptr && !match->lengthField;
        const auto only = static_cast<std::uint16_t>(exact ? match->number : 0);
        put(sizeof only, exact ? &only : nullptr, &all);
    }

    const Conjunction& m_conjunction;
    std::size_t m_used = 0;
};

void CoverIndex::add(const Conjunction& conjunction, std::size_t number)
{
    const Flat flat(conjunction);
    const auto [place, isNew] = m_places.emplace(flat.mask, m_forms.size());
    if (isNew)
        m_forms.push_back({flat.mask, {}});
    m_forms[place->second].byHash[hashOf(flat.value, flat.mask)].push_back(number);
}

void CoverIndex::find(const Conjunction& inner, const std::function<void(std::span<const std::size_t>)>& onList) const
{
    const Flat flat(inner);
    for (const Form& form : m_forms) {
        std::uint64_t open = 0; // bits that the form looks at and the conjunction leaves open
        for (std::size_t i = 0; i < form.mask.size(); ++i)
            open |= form.mask[i] & ~flat.mask[i];
        if (open != 0)
            continue;
        const auto list = form.byHash.find(hashOf(flat.value, form.mask));
        if (list != form.byHash.end())
            onList(list->second);
    }
}

void CoverIndex::clear()
{
    m_forms.clear();
    m_places.clear();
}

} // namespace moatctl
