#include "compiled/key.hpp"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

namespace compiled
{

namespace
{

using ebtables::Rule;

struct PartInfo {
    Field field;
    const char* name;
};

constexpr PartInfo parts[] = {
    {{Header::InPort, 0, 16}, "in"},        {{Header::OutPort, 0, 16}, "out"},
    {{Header::Link, 0, 6}, "dst"},          {{Header::Link, 6, 6}, "src"},
    {{Header::Link, 12, 2}, "type"},        {{Header::Link, 14, 2}, "vlan"},
    {{Header::Link, 16, 2}, "encap"},       {{Header::Network, 12, 4}, "ip-src"},
    {{Header::Network, 16, 4}, "ip-dst"},   {{Header::Network, 9, 1}, "ip-proto"},
    {{Header::Network, 20, 2}, "sport"},    {{Header::Network, 22, 2}, "dport"},
    {{Header::Network, 8, 16}, "ip6-src"},  {{Header::Network, 24, 16}, "ip6-dst"},
    {{Header::Network, 6, 1}, "ip6-proto"}, {{Header::Network, 40, 2}, "sport6"},
    {{Header::Network, 42, 2}, "dport6"},
};

constexpr std::size_t mostKeyBytes = 64; // in the kernel, with each part filled up to words

constexpr std::uint16_t tcp = 6;
constexpr std::uint16_t udp = 17;
constexpr std::uint16_t smallestType = 0x600;
constexpr std::uint16_t vlanIds = 0x0fff;

// Collects parts in the order of Part; one that does not fit spoils the key.
class KeyMaker
{
public:
    explicit KeyMaker(Family family) { m_key.family = family; }

    void port(Part part, const std::optional<ebtables::InterfaceMatch>& match)
    {
        if (!match)
            return;
        std::array<std::uint8_t, 16> name{};
        const bool fits = !match->prefix && !match->negated && match->name.size() < name.size();
        std::copy_n(match->name.begin(), fits ? match->name.size() : 0, name.begin());
        addIf(fits, part, name, everyBit<16>());
    }

    template <typename Match>
    void address(Part part, const std::optional<Match>& match)
    {
        const auto isZero = [](std::uint8_t byte) { return byte == 0; };
        if (match && (match->negated || !std::ranges::all_of(match->mask, isZero)))
            addIf(!match->negated, part, match->address, match->mask);
    }

    void type(Part part, const std::optional<ebtables::EthertypeMatch>& match)
    {
        if (match)
            number(part, match->number, 0xffff,
                   !match->negated && !match->lengthField && match->number >= smallestType);
    }

    void number(Part part, const std::optional<ebtables::RangeMatch>& match, std::uint16_t mask)
    {
        if (match)
            number(part, match->first, mask, !match->negated && match->first == match->last && match->first <= mask);
    }

    std::optional<RuleKey> take()
    {
        std::size_t size = 0;
        for (const Part part : m_key.parts)
            size += (fieldOf(part).size + 3U) / 4U * 4U;
        return m_fits && size <= mostKeyBytes ? std::optional(std::move(m_key)) : std::nullopt;
    }

private:
    template <std::size_t N>
    static constexpr std::array<std::uint8_t, N> everyBit()
    {
        std::array<std::uint8_t, N> mask;
        mask.fill(0xff);
        return mask;
    }

    void number(Part part, std::uint16_t value, std::uint16_t mask, bool fits)
    {
        const auto bytes = [](std::uint16_t of) {
            return std::array<std::uint8_t, 2>{static_cast<std::uint8_t>(of >> 8U), static_cast<std::uint8_t>(of)};
        };
        const std::array<std::uint8_t, 2> ofValue = bytes(value);
        const std::array<std::uint8_t, 2> ofMask = bytes(mask);
        const std::size_t skipped = ofValue.size() - fieldOf(part).size;
        addIf(fits, part, std::span(ofValue).subspan(skipped), std::span(ofMask).subspan(skipped));
    }

    void addIf(bool fits, Part part, std::span<const std::uint8_t> value, std::span<const std::uint8_t> mask)
    {
        // What the kernel compares with is never masked: with other bits in it, nothing matches.
        for (std::size_t i = 0; i < value.size(); ++i)
            m_fits = m_fits && (value[i] & ~mask[i]) == 0;
        m_fits = m_fits && fits;
        m_key.parts.push_back(part);
        m_key.value.insert(m_key.value.end(), value.begin(), value.end());
        m_key.mask.insert(m_key.mask.end(), mask.begin(), mask.end());
    }

    RuleKey m_key;
    bool m_fits = true;
};

bool isOfType(const Rule& rule, Family family)
{
    return rule.ethertype == ebtables::EthertypeMatch{typeOf(family), false, false};
}

// Nothing when the matches contradict each other, which the kernel does not take.
std::optional<Family> familyOf(const Rule& rule)
{
    Family family = Family::Any;
    for (const auto& [uses, kind] : {std::pair(rule.ip.any(), Family::Ip4), std::pair(rule.ip6.any(), Family::Ip6),
                                     std::pair(rule.vlan.any(), Family::Vlan)}) {
        if (uses && (family != Family::Any || !isOfType(rule, kind)))
            return std::nullopt;
        family = uses ? kind : family;
    }
    return family;
}

// The kernel takes ports with a protocol that has ports only.
template <std::size_t N>
bool portsHaveProtocol(const ebtables::IpMatches<N>& ip)
{
    return (!ip.sourcePort && !ip.destinationPort) ||
           (ip.protocol && (ip.protocol->first == tcp || ip.protocol->first == udp));
}

// A protocol that no byte at a fixed place tells.
bool isWalkedTo(const std::optional<ebtables::RangeMatch>& protocol)
{
    return protocol && (protocol->first == ip6NoNext ||
                        std::ranges::find(ip6Extensions, protocol->first) != std::end(ip6Extensions));
}

} // namespace

Field fieldOf(Part part)
{
    return parts[static_cast<std::size_t>(part)].field;
}

const char* nameOf(Part part)
{
    return parts[static_cast<std::size_t>(part)].name;
}

bool RuleKey::has(Part part) const
{
    return std::ranges::find(parts, part) != parts.end();
}

std::optional<RuleKey> keyOf(const Rule& rule, Decided decided)
{
    const std::optional<Family> family = familyOf(rule);
    // Beside an id the kernel does not look at the priority.
    if (!isFinal(rule) || !family || rule.vlan.priority || !portsHaveProtocol(rule.ip) ||
        !portsHaveProtocol(rule.ip6) || isWalkedTo(rule.ip6.protocol))
        return std::nullopt;

    KeyMaker maker(*family);
    if (!decided.in)
        maker.port(Part::InPort, rule.in);
    if (!decided.out)
        maker.port(Part::OutPort, rule.out);
    maker.address(Part::Destination, rule.destination);
    maker.address(Part::Source, rule.source);
    if (*family == Family::Any)
        maker.type(Part::Type, rule.ethertype);
    maker.number(Part::VlanId, rule.vlan.id, vlanIds);
    maker.type(Part::Encapsulated, rule.vlan.encapsulated);
    maker.address(Part::Ip4Source, rule.ip.source);
    maker.address(Part::Ip4Destination, rule.ip.destination);
    maker.number(Part::Ip4Protocol, rule.ip.protocol, 0xff);
    maker.number(Part::Ip4SourcePort, rule.ip.sourcePort, 0xffff);
    maker.number(Part::Ip4DestinationPort, rule.ip.destinationPort, 0xffff);
    maker.address(Part::Ip6Source, rule.ip6.source);
    maker.address(Part::Ip6Destination, rule.ip6.destination);
    maker.number(Part::Ip6Protocol, rule.ip6.protocol, 0xff);
    maker.number(Part::Ip6SourcePort, rule.ip6.sourcePort, 0xffff);
    maker.number(Part::Ip6DestinationPort, rule.ip6.destinationPort, 0xffff);
    std::optional<RuleKey> key = maker.take();
    // A RETURN from behind the jump that finds the ports would lead back to the jump only.
    if (key && rule.target == "RETURN" && (dependsOnHeaderLength(*key) || dependsOnExtensions(*key)))
        return std::nullopt;
    return key;
}

bool dependsOnHeaderLength(const RuleKey& key)
{
    return key.has(Part::Ip4SourcePort) || key.has(Part::Ip4DestinationPort);
}

bool dependsOnExtensions(const RuleKey& key)
{
    return key.has(Part::Ip6Protocol);
}

} // namespace compiled
