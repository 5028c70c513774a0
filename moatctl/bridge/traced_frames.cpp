#include "moatctl/bridge/traced_frames.hpp"

#include "nftables/trace_table.hpp"

#include <algorithm>
#include <array>
#include <net/if.h>
#include <span>

namespace moatctl
{

namespace
{

using Bytes = std::span<const std::uint8_t>;
using Kind = nftables::TraceEvent::Kind;
using Verdict = nftables::TraceEvent::Verdict;

std::uint16_t number(Bytes bytes, std::size_t at)
{
    return static_cast<std::uint16_t>(bytes[at] << 8U | bytes[at + 1]);
}

template <typename Address>
Address address(Bytes bytes, std::size_t at)
{
    Address result;
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), result.size(), result.begin());
    return result;
}

std::string portName(std::uint32_t index)
{
    std::array<char, IF_NAMESIZE> name{};
    return index != 0 && if_indextoname(index, name.data()) != nullptr ? name.data() : "";
}

void readLink(Bytes bytes, Frame& frame)
{
    constexpr std::size_t untagged = 14;
    constexpr std::size_t tagged = 18;
    if (bytes.size() < untagged)
        return;
    frame.destination = address<MacAddress>(bytes, 0);
    frame.source = address<MacAddress>(bytes, 6);
    frame.type = number(bytes, 12);
    if (frame.type != ethertype::vlan || bytes.size() < tagged)
        return;
    const std::uint16_t tag = number(bytes, 14);
    frame.vlan = VlanTag{static_cast<std::uint16_t>(tag & 0xfffU), static_cast<std::uint8_t>(tag >> 13U)};
    frame.type = number(bytes, 16);
}

void readNetwork(Bytes bytes, Frame& frame)
{
    constexpr std::size_t ip4Header = 20;
    constexpr std::size_t ip6Header = 40;
    if (frame.type == ethertype::ip4 && bytes.size() >= ip4Header) {
        frame.ip4Source = address<Ip4Address>(bytes, 12);
        frame.ip4Destination = address<Ip4Address>(bytes, 16);
        frame.protocol = bytes[9];
        frame.laterFragment = (number(bytes, 6) & 0x1fffU) != 0;
    } else if (frame.type == ethertype::ip6 && bytes.size() >= ip6Header) {
        frame.ip6Source = address<Ip6Address>(bytes, 8);
        frame.ip6Destination = address<Ip6Address>(bytes, 24);
        // What is behind extension headers, if these are some, does not fit the bytes that there are.
        if (bytes[6] == ipProtocol::tcp || bytes[6] == ipProtocol::udp || bytes[6] == ipProtocol::icmp6)
            frame.protocol = bytes[6];
    }
}

void readTransport(Bytes bytes, Frame& frame)
{
    constexpr std::size_t ports = 4;
    const bool hasPorts = frame.protocol == ipProtocol::tcp || frame.protocol == ipProtocol::udp;
    if (!hasPorts || frame.laterFragment || bytes.size() < ports)
        return;
    frame.sourcePort = number(bytes, 0);
    frame.destinationPort = number(bytes, 2);
}

} // namespace

Frame frameOf(const nftables::TraceEvent& event)
{
    Frame frame;
    frame.in = portName(event.in);
    frame.out = portName(event.out);
    readLink(event.link, frame);
    readNetwork(event.network, frame);
    readTransport(event.transport, frame);
    return frame;
}

void TracedFrames::take(const nftables::TraceEvent& event, Time now, std::vector<TracedFrame>& frames)
{
    const auto known = m_underway.find(event.id);
    if (event.table == m_table) {
        // The end of the chain is told without a rule.
        const bool isChosen = event.chain == nftables::selectingChain && event.rule != 0;
        // With headers: a frame that begins its way, whatever had this number before.
        if (known == m_underway.end() || !event.link.empty()) {
            m_underway[event.id] = {frameOf(event), event.link, event.out, now, isChosen};
        } else {
            known->second.last = now;
            known->second.isChosen = known->second.isChosen || isChosen;
        }
        return;
    }
    if (known == m_underway.end())
        return;
    Underway& underway = known->second;
    underway.last = now;
    const bool isFilter = event.table == m_filter;
    // The filter begins with the frame's headers. Otherwise messages were lost, and this is of another frame.
    if (isFilter && !underway.isFiltered && (event.link != underway.link || event.out != underway.out)) {
        m_underway.erase(known);
        return;
    }
    underway.isFiltered = underway.isFiltered || isFilter;
    const bool decides = event.kind != Kind::Return && event.verdict != Verdict::GoesOn;
    if (!decides || (!isFilter && event.verdict == Verdict::Accept))
        return;
    if (underway.isChosen)
        frames.push_back({std::move(underway.frame), event.verdict == Verdict::Accept, event.table, event.chain,
                          event.kind == Kind::Rule ? event.rule : 0});
    m_underway.erase(known);
}

void TracedFrames::settle(Time since, bool messagesWereLost, std::vector<TracedFrame>& frames)
{
    for (auto each = m_underway.begin(); each != m_underway.end();) {
        Underway& underway = each->second;
        if (underway.last >= since) {
            ++each;
            continue;
        }
        if (underway.isChosen && !underway.isFiltered && !messagesWereLost)
            frames.push_back({std::move(underway.frame), true, {}, {}, 0});
        each = m_underway.erase(each);
    }
}

} // namespace moatctl
