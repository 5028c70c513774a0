#include "ebtables/fixed_bits.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace ebtables
{

namespace
{

// Each kind of match has its place, whether it is there or not.
class Collector
{
public:
    Collector(const Conjunction& conjunction, FixedBits& into) : m_conjunction(conjunction), m_into(into)
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
        number([](const Rule& rule) -> auto& { return rule.ip.sourcePort; });
        number([](const Rule& rule) -> auto& { return rule.ip.destinationPort; });
        number([](const Rule& rule) -> auto& { return rule.ip6.protocol; });
        number([](const Rule& rule) -> auto& { return rule.ip6.sourcePort; });
        number([](const Rule& rule) -> auto& { return rule.ip6.destinationPort; });
        type([](const Rule& rule) -> auto& { return rule.ethertype; });
        type([](const Rule& rule) -> auto& { return rule.vlan.encapsulated; });
    }

private:
    // The first match of the kind that is not negated.
    const auto* find(const auto& of) const
    {
        const auto positive = [&](const Rule* rule) { return of(*rule) && !of(*rule)->negated; };
        const auto found = std::ranges::find_if(m_conjunction, positive);
        return found != m_conjunction.end() ? &*of(**found) : nullptr;
    }

    void put(std::size_t size, const void* bytes, const void* maskBytes)
    {
        if (m_used + size > sizeof m_into.value)
            throw std::logic_error("a conjunction has more values than there is room for");
        if (bytes != nullptr) {
            std::memcpy(reinterpret_cast<char*>(m_into.value.data()) + m_used, bytes, size);
            std::memcpy(reinterpret_cast<char*>(m_into.mask.data()) + m_used, maskBytes, size);
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
    FixedBits& m_into;
    std::size_t m_used = 0;
};

} // namespace

FixedBits::FixedBits(const Conjunction& conjunction)
{
    Collector(conjunction, *this);
}

std::uint64_t hashWhere(const FixedBits::Bits& mask, const FixedBits::Bits& value)
{
    constexpr std::uint64_t odd = 0x9e3779b97f4a7c15;
    std::uint64_t hash = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (mask[i] == 0)
            continue;
        hash = (hash ^ (value[i] & mask[i])) * odd;
        hash ^= hash >> 29;
    }
    return hash;
}

} // namespace ebtables
