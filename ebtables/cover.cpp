#include "ebtables/cover.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace ebtables
{

namespace
{

// Sets without their negation: whether a is part of b, and whether they have nothing in common.

bool isPart(const InterfaceMatch& a, const InterfaceMatch& b)
{
    return b.prefix ? a.name.starts_with(b.name) : !a.prefix && a.name == b.name;
}

bool isApart(const InterfaceMatch& a, const InterfaceMatch& b)
{
    const bool common = a.prefix   ? b.name.starts_with(a.name) || (b.prefix && a.name.starts_with(b.name))
                        : b.prefix ? a.name.starts_with(b.name)
                                   : a.name == b.name;
    return !common;
}

template <std::size_t N>
struct Masked {
    const std::array<std::uint8_t, N>& address;
    const std::array<std::uint8_t, N>& mask;
};

template <std::size_t N>
bool isPart(const Masked<N>& a, const Masked<N>& b)
{
    for (std::size_t i = 0; i < N; ++i) {
        if ((b.mask[i] & ~a.mask[i]) != 0 || ((a.address[i] ^ b.address[i]) & b.mask[i]) != 0)
            return false;
    }
    return true;
}

template <std::size_t N>
bool isApart(const Masked<N>& a, const Masked<N>& b)
{
    for (std::size_t i = 0; i < N; ++i) {
        if (((a.address[i] ^ b.address[i]) & a.mask[i] & b.mask[i]) != 0)
            return true;
    }
    return false;
}

bool isPart(const MacMatch& a, const MacMatch& b)
{
    return isPart(Masked<6>{a.address, a.mask}, Masked<6>{b.address, b.mask});
}

bool isApart(const MacMatch& a, const MacMatch& b)
{
    return isApart(Masked<6>{a.address, a.mask}, Masked<6>{b.address, b.mask});
}

template <std::size_t N>
bool isPart(const NetworkMatch<N>& a, const NetworkMatch<N>& b)
{
    return isPart(Masked<N>{a.address, a.mask}, Masked<N>{b.address, b.mask});
}

template <std::size_t N>
bool isApart(const NetworkMatch<N>& a, const NetworkMatch<N>& b)
{
    return isApart(Masked<N>{a.address, a.mask}, Masked<N>{b.address, b.mask});
}

bool isPart(const EthertypeMatch& a, const EthertypeMatch& b)
{
    return a.lengthField == b.lengthField && (a.lengthField || a.number == b.number);
}

bool isApart(const EthertypeMatch& a, const EthertypeMatch& b)
{
    return !isPart(a, b);
}

bool isPart(const RangeMatch& a, const RangeMatch& b)
{
    return b.first <= a.first && a.last <= b.last;
}

bool isApart(const RangeMatch& a, const RangeMatch& b)
{
    return a.last < b.first || b.last < a.first;
}

// With their negations. A negated match has its conditions, too (the frame is IPv4, say), but so has every other
// match of that kind.

template <typename Match>
bool implies(const Match& a, const Match& b)
{
    if (!b.negated)
        return !a.negated && isPart(a, b);
    return a.negated ? isPart(b, a) : isApart(a, b);
}

template <typename Match>
bool excludes(const Match& a, const Match& b)
{
    if (!a.negated && !b.negated)
        return isApart(a, b);
    if (a.negated != b.negated)
        return a.negated ? isPart(b, a) : isPart(a, b);
    return false;
}

// Calls visit with an accessor for each of a rule's matches, until one returns false.
template <typename Visitor>
bool allMatches(const Visitor& visit)
{
    return visit([](const Rule& rule) -> auto& { return rule.in; }) &&
           visit([](const Rule& rule) -> auto& { return rule.out; }) &&
           visit([](const Rule& rule) -> auto& { return rule.source; }) &&
           visit([](const Rule& rule) -> auto& { return rule.destination; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ethertype; }) &&
           visit([](const Rule& rule) -> auto& { return rule.vlan.id; }) &&
           visit([](const Rule& rule) -> auto& { return rule.vlan.priority; }) &&
           visit([](const Rule& rule) -> auto& { return rule.vlan.encapsulated; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip.source; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip.destination; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip.protocol; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip.sourcePort; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip.destinationPort; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip6.source; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip6.destination; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip6.protocol; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip6.sourcePort; }) &&
           visit([](const Rule& rule) -> auto& { return rule.ip6.destinationPort; });
}

bool ruleCovers(const Rule& outer, const Conjunction& inner)
{
    return allMatches([&](const auto& of) {
        const auto& wanted = of(outer);
        return !wanted || std::ranges::any_of(inner, [&](const Rule* rule) {
            const auto& given = of(*rule);
            return given && implies(*given, *wanted);
        });
    });
}

bool rulesDisjoint(const Rule& a, const Rule& b)
{
    return !allMatches([&](const auto& of) {
        const auto& first = of(a);
        const auto& second = of(b);
        return !(first && second && excludes(*first, *second));
    });
}

} // namespace

bool covers(const Conjunction& outer, const Conjunction& inner)
{
    return std::ranges::all_of(outer, [&](const Rule* rule) { return ruleCovers(*rule, inner); });
}

bool disjoint(const Conjunction& a, const Conjunction& b)
{
    return std::ranges::any_of(a, [&](const Rule* first) {
        return std::ranges::any_of(b, [&](const Rule* second) { return rulesDisjoint(*first, *second); });
    });
}

} // namespace ebtables
