#include "tests/compiled/raw_frame.hpp"

#include <algorithm>
#include <span>

namespace test
{

namespace
{

// Bytes of the frame, or nothing when it ends before.
std::optional<std::span<const std::uint8_t>> read(const Bytes& data, std::size_t at, std::size_t size)
{
    if (at + size > data.size())
        return std::nullopt;
    return std::span(data).subspan(at, size);
}

std::uint16_t number(std::span<const std::uint8_t> bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8U | bytes[1]);
}

bool holds(const std::optional<ebtables::InterfaceMatch>& match, const std::string& port)
{
    return !match || (match->prefix ? port.starts_with(match->name) : port == match->name) != match->negated;
}

// For addresses of all kinds.
template <typename Match>
bool holds(const std::optional<Match>& match, std::span<const std::uint8_t> found)
{
    if (!match)
        return true;
    bool same = true;
    for (std::size_t i = 0; i < match->mask.size(); ++i)
        same = same && (found[i] & match->mask[i]) == match->address[i];
    return same != match->negated;
}

bool holds(const std::optional<ebtables::RangeMatch>& match, unsigned found)
{
    return !match || (match->first <= found && found <= match->last) != match->negated;
}

bool holds(const std::optional<ebtables::EthertypeMatch>& match, std::uint16_t found)
{
    return !match || (match->lengthField ? found < 0x600 : found == match->number) != match->negated;
}

template <std::size_t N>
bool portsHold(const ebtables::IpMatches<N>& ip, const Bytes& data, std::size_t at)
{
    if (!ip.sourcePort && !ip.destinationPort)
        return true;
    const auto ports = read(data, at, 4);
    return ports && holds(ip.sourcePort, number(*ports)) && holds(ip.destinationPort, number(ports->subspan(2)));
}

bool holds(const ebtables::IpMatches<4>& ip, const Bytes& data)
{
    const auto header = read(data, 0, 20);
    if (!header || !holds(ip.source, header->subspan(12)) || !holds(ip.destination, header->subspan(16)))
        return false;
    if (!ip.protocol) // ports without it: the kernel takes no such rule
        return !ip.sourcePort && !ip.destinationPort;
    if (!holds(ip.protocol, (*header)[9]))
        return false;
    const bool laterFragment = (number(header->subspan(6)) & 0x1fffU) != 0;
    if (laterFragment && (ip.sourcePort || ip.destinationPort))
        return false;
    return portsHold(ip, data, ((*header)[0] & 15U) * std::size_t{4});
}

// Where the headers between the IPv6 header and its protocol end, and that protocol; nothing when they do not.
struct Upper {
    std::size_t at;
    std::uint8_t protocol;
};
std::optional<Upper> upperOf(const Bytes& data)
{
    Upper here{40, data[6]};
    while (here.protocol == 0 || here.protocol == 43 || here.protocol == 44 || here.protocol == 51 ||
           here.protocol == 59 || here.protocol == 60) {
        const auto header = read(data, here.at, 2);
        if (here.protocol == 59 || !header)
            return std::nullopt;
        std::size_t length = ((*header)[1] + std::size_t{1}) * 8;
        if (here.protocol == 44) {
            const auto offset = read(data, here.at + 2, 2);
            if (!offset)
                return std::nullopt;
            if ((number(*offset) & ~7U) != 0)
                break;
            length = 8;
        } else if (here.protocol == 51) {
            length = ((*header)[1] + std::size_t{2}) * 4;
        }
        here = {here.at + length, (*header)[0]};
    }
    return here;
}

bool holds(const ebtables::IpMatches<16>& ip, const Bytes& data)
{
    const auto header = read(data, 0, 40);
    if (!header || !holds(ip.source, header->subspan(8)) || !holds(ip.destination, header->subspan(24)))
        return false;
    if (!ip.protocol)
        return !ip.sourcePort && !ip.destinationPort;
    const std::optional<Upper> upper = upperOf(data);
    return upper && holds(ip.protocol, upper->protocol) && portsHold(ip, data, upper->at);
}

bool holds(const ebtables::VlanMatches& vlan, const RawFrame& frame)
{
    const Bytes link = frame.link();
    const auto tag = read(link, 14, 4);
    if (!tag)
        return false;
    const std::uint16_t tci = number(*tag);
    // Beside an id other than 0 the kernel does not look at the priority.
    const bool priorityCounts = !vlan.id || vlan.id->first == 0;
    return holds(vlan.id, tci & 0x0fffU) && (!priorityCounts || holds(vlan.priority, tci >> 13U)) &&
           holds(vlan.encapsulated, number(tag->subspan(2)));
}

} // namespace

Bytes RawFrame::link() const
{
    Bytes bytes = addresses;
    const auto add = [&](std::uint16_t field) {
        bytes.push_back(static_cast<std::uint8_t>(field >> 8U));
        bytes.push_back(static_cast<std::uint8_t>(field));
    };
    if (tag) {
        add(0x8100);
        add(*tag);
    }
    add(type);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

bool matches(const ebtables::Rule& rule, const RawFrame& frame)
{
    const std::span<const std::uint8_t> addresses = frame.addresses;
    return holds(rule.in, frame.in) && holds(rule.out, frame.out) && holds(rule.destination, addresses.first(6)) &&
           holds(rule.source, addresses.subspan(6)) &&
           holds(rule.ethertype, frame.tag ? std::uint16_t{0x8100} : frame.type) &&
           (!rule.ip.any() || holds(rule.ip, frame.data)) && (!rule.ip6.any() || holds(rule.ip6, frame.data)) &&
           (!rule.vlan.any() || holds(rule.vlan, frame));
}

} // namespace test
