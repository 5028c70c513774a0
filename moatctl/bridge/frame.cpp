#include "moatctl/bridge/frame.hpp"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>

namespace moatctl
{

namespace
{

constexpr std::string_view typeInWords = "the ethertype";

template <std::size_t N>
bool equalWhereMasked(const std::array<std::uint8_t, N>& value, const std::array<std::uint8_t, N>& address,
                      const std::array<std::uint8_t, N>& mask)
{
    for (std::size_t i = 0; i < N; ++i) {
        if ((value[i] & mask[i]) != (address[i] & mask[i]))
            return false;
    }
    return true;
}

// Collects the answers of a rule's matches: a single no decides, whatever is unknown.
class Collector
{
public:
    void add(bool holds, std::string_view option)
    {
        if (!holds && m_result.answer != Answer::No)
            m_result = {Answer::No, option, {}};
    }

    void unknown(std::string_view option, std::string_view missing)
    {
        if (m_result.answer == Answer::Yes)
            m_result = {Answer::Unknown, option, missing};
    }

    const MatchResult& result() const { return m_result; }

private:
    MatchResult m_result;
};

bool holds(const ebtables::RangeMatch& match, std::uint16_t value)
{
    return (match.first <= value && value <= match.last) != match.negated;
}

bool holds(const ebtables::MacMatch& match, const MacAddress& value)
{
    return equalWhereMasked(value, match.address, match.mask) != match.negated;
}

// number: nothing for a frame whose field is a length.
bool holds(const ebtables::EthertypeMatch& match, std::optional<std::uint16_t> number)
{
    return (match.lengthField ? !number : number == match.number) != match.negated;
}

std::optional<std::uint16_t> typeNumber(std::uint16_t field)
{
    return field < ethertype::firstNumber ? std::nullopt : std::optional(field);
}

// The option names and addresses of one IP version.
template <std::size_t N>
struct Ip {
    std::string_view source, destination, protocol, sourcePort, destinationPort;
    std::uint16_t type;
    std::optional<std::array<std::uint8_t, N>> Frame::*sourceAddress;
    std::optional<std::array<std::uint8_t, N>> Frame::*destinationAddress;
};

constexpr Ip<4> ip4{"--ip-source",           "--ip-destination", "--ip-protocol",   "--ip-source-port",
                    "--ip-destination-port", ethertype::ip4,     &Frame::ip4Source, &Frame::ip4Destination};
constexpr Ip<16> ip6{"--ip6-source",           "--ip6-destination", "--ip6-protocol",  "--ip6-source-port",
                     "--ip6-destination-port", ethertype::ip6,      &Frame::ip6Source, &Frame::ip6Destination};

void addMac(Collector& collector, const std::optional<ebtables::MacMatch>& match,
            const std::optional<MacAddress>& address, std::string_view option, std::string_view inWords)
{
    if (!match)
        return;
    if (address)
        collector.add(holds(*match, *address), option);
    else
        collector.unknown(option, inWords);
}

template <std::size_t N>
void addAddress(Collector& collector, const std::optional<ebtables::NetworkMatch<N>>& match,
                const std::optional<std::array<std::uint8_t, N>>& address, std::string_view option,
                std::string_view inWords)
{
    if (!match)
        return;
    if (address)
        collector.add(equalWhereMasked(*address, match->address, match->mask) != match->negated, option);
    else
        collector.unknown(option, inWords);
}

void addPort(Collector& collector, const std::optional<ebtables::RangeMatch>& match, const Frame& frame,
             std::optional<std::uint16_t> port, std::string_view option, std::string_view inWords)
{
    if (!match)
        return;
    if (frame.laterFragment)
        collector.add(false, option);
    else if (port)
        collector.add(holds(*match, *port), option);
    else
        collector.unknown(option, inWords);
}

template <std::size_t N>
void addIp(Collector& collector, const ebtables::IpMatches<N>& matches, const Frame& frame, const Ip<N>& names)
{
    if (!matches.any())
        return;
    // A tag hides the ethertype behind it, and with it all that follows.
    if (frame.vlan || (frame.type && *frame.type != names.type))
        return collector.add(false, "-p");
    if (!frame.type)
        return collector.unknown("-p", typeInWords);

    addAddress(collector, matches.source, frame.*names.sourceAddress, names.source, "the IP source address");
    addAddress(collector, matches.destination, frame.*names.destinationAddress, names.destination,
               "the IP destination address");
    if (matches.protocol) {
        std::optional<std::uint8_t> protocol = frame.protocol;
        // The kernel does not look behind the fragment header of a later IPv6 fragment.
        if (N == 16 && frame.laterFragment)
            protocol = ipProtocol::ip6Fragment;
        if (!protocol)
            collector.unknown(names.protocol, "the IP protocol");
        else if (N == 16 && *protocol == ipProtocol::ip6NoNext)
            collector.add(false, names.protocol); // nothing follows the header: not even a negated match holds
        else
            collector.add(holds(*matches.protocol, *protocol), names.protocol);
    }
    addPort(collector, matches.sourcePort, frame, frame.sourcePort, names.sourcePort, "the source port");
    addPort(collector, matches.destinationPort, frame, frame.destinationPort, names.destinationPort,
            "the destination port");
}

void addVlan(Collector& collector, const ebtables::VlanMatches& matches, const Frame& frame)
{
    if (!matches.any())
        return;
    if (!frame.vlan)
        return collector.add(false, "-p");
    if (matches.id)
        collector.add(holds(*matches.id, frame.vlan->id), "--vlan-id");
    if (matches.priority)
        collector.add(holds(*matches.priority, frame.vlan->priority), "--vlan-prio");
    if (matches.encapsulated) {
        if (frame.type)
            collector.add(holds(*matches.encapsulated, typeNumber(*frame.type)), "--vlan-encap");
        else
            collector.unknown("--vlan-encap", typeInWords);
    }
}

} // namespace

bool matchesPort(const ebtables::InterfaceMatch& match, std::string_view port)
{
    return (match.prefix ? port.starts_with(match.name) : port == match.name) != match.negated;
}

MatchResult match(const ebtables::Rule& rule, const Frame& frame)
{
    Collector collector;
    if (rule.in)
        collector.add(matchesPort(*rule.in, frame.in), "-i");
    if (rule.out) // no port to leave by: no match, not even a negated one
        collector.add(!frame.out.empty() && matchesPort(*rule.out, frame.out), "-o");
    addMac(collector, rule.source, frame.source, "-s", "the source MAC address");
    addMac(collector, rule.destination, frame.destination, "-d", "the destination MAC address");
    if (rule.ethertype) {
        if (frame.vlan)
            collector.add(holds(*rule.ethertype, ethertype::vlan), "-p");
        else if (frame.type)
            collector.add(holds(*rule.ethertype, typeNumber(*frame.type)), "-p");
        else if (rule.ethertype->number == ethertype::vlan && !rule.ethertype->lengthField)
            collector.add(rule.ethertype->negated, "-p"); // untagged, whatever it is
        else
            collector.unknown("-p", typeInWords);
    }
    addIp(collector, rule.ip, frame, ip4);
    addIp(collector, rule.ip6, frame, ip6);
    addVlan(collector, rule.vlan, frame);
    return collector.result();
}

std::string toText(const MacAddress& address)
{
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", address[0], address[1], address[2],
                  address[3], address[4], address[5]);
    return text.data();
}

std::string toText(const Ip4Address& address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, address.data(), text.data(), text.size());
    return text.data();
}

std::string toText(const Ip6Address& address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, address.data(), text.data(), text.size());
    return text.data();
}

} // namespace moatctl
