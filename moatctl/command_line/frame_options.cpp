#include "moatctl/command_line/frame_options.hpp"

#include "ebtables/operands.hpp"
#include "moatctl/exit_status.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/values.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <string_view>

namespace moatctl
{

namespace
{

[[noreturn]] void wrong(std::string_view option, const std::string& value, std::string_view expected)
{
    throw Failure(ExitStatus::BadInput,
                  std::string(option) + ' ' + inQuotes(value) + ": expected " + std::string(expected));
}

std::string portName(std::string_view option, const std::string& name)
{
    const std::optional<ebtables::InterfaceMatch> match = ebtables::parseInterface(name);
    if (!match || match->prefix)
        wrong(option, name, "the name of one port, of at most 15 characters");
    return name;
}

MacAddress macAddress(std::string_view option, const std::string& word)
{
    const std::optional<ebtables::MacMatch> match = ebtables::parseMac(word);
    if (!match || std::ranges::any_of(match->mask, [](std::uint8_t byte) { return byte != 0xff; }))
        wrong(option, word, "one MAC address such as 00:11:22:33:44:55");
    return match->address;
}

template <std::size_t N>
std::optional<std::array<std::uint8_t, N>> ipAddress(const std::string& word)
{
    std::array<std::uint8_t, N> address{};
    if (inet_pton(N == 4 ? AF_INET : AF_INET6, word.c_str(), address.data()) != 1)
        return std::nullopt;
    return address;
}

std::string typeText(std::uint16_t type)
{
    if (type < ethertype::firstNumber)
        return "a length";
    if (type == ethertype::ip4)
        return "IPv4";
    if (type == ethertype::ip6)
        return "IPv6";
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "0x%04x", static_cast<unsigned>(type));
    return text.data();
}

void setAddress(Frame& frame, std::string_view option, const std::string& word, std::optional<Ip4Address> Frame::*ip4,
                std::optional<Ip6Address> Frame::*ip6)
{
    if (word.empty())
        return;
    frame.*ip4 = ipAddress<4>(word);
    frame.*ip6 = ipAddress<16>(word);
    if (!(frame.*ip4) && !(frame.*ip6))
        wrong(option, word, "one IPv4 or IPv6 address");
    const std::uint16_t type = frame.*ip4 ? ethertype::ip4 : ethertype::ip6;
    if (frame.type && *frame.type != type)
        wrong(option, word,
              "an address of the same family as the other address and --ethertype, " + typeText(*frame.type));
    frame.type = type;
}

std::uint16_t number(std::string_view option, const std::string& text, int largest)
{
    const std::optional<std::int32_t> value = parseNumber(text);
    if (!value || *value < 0 || *value > largest)
        wrong(option, text, "a number from 0 to " + std::to_string(largest));
    return static_cast<std::uint16_t>(*value);
}

} // namespace

void addFrameOptions(const Command& command, FrameOptions& options, const Unsaid& unsaid)
{
    command.option("--src-mac", "MAC", "Its source MAC address", options.sourceMac);
    command.option("--dst-mac", "MAC", "Its destination MAC address", options.destinationMac);
    command.option("--vlan", "NUMBER", "VLAN id of its tag; without it " + unsaid.vlan, options.vlan);
    command.option("--vlan-prio", "NUMBER", "Priority in its tag; without it " + unsaid.vlanPriority,
                   options.vlanPriority);
    command.option(
        "--ethertype", "TYPE",
        "What it carries, after the tag if there is one: IPv4, ARP, 0x88cc, or LENGTH for an IEEE 802.3 frame",
        options.ethertype);
    command.option("--src", "IP", "IP source address", options.source);
    command.option("--dst", "IP", "IP destination address", options.destination);
    command.option("--proto", "PROTO", "IP protocol: tcp, udp, icmp or a number", options.protocol);
    command.option("--port", "NUMBER", "TCP or UDP destination port; needs --proto", options.port);
    command.option("--src-port", "NUMBER", "TCP or UDP source port; needs --proto", options.sourcePort);
    command.flag("--fragment", "It is a later fragment of an IP packet, which has no ports", options.fragment);
}

Frame frameOf(const FrameOptions& options)
{
    Frame frame;
    if (!options.in.empty())
        frame.in = portName("--in", options.in);
    if (!options.out.empty())
        frame.out = portName("--out", options.out);
    if (!options.sourceMac.empty())
        frame.source = macAddress("--src-mac", options.sourceMac);
    if (!options.destinationMac.empty())
        frame.destination = macAddress("--dst-mac", options.destinationMac);
    if (frame.source && (((*frame.source)[0] & 1U) != 0 || *frame.source == MacAddress{}))
        wrong("--src-mac", options.sourceMac,
              "the address of a station: the bridge drops frames from others before any chain");

    if (!options.vlan.empty())
        frame.vlan = VlanTag{number("--vlan", options.vlan, 4095), 0};
    if (!options.vlanPriority.empty()) {
        if (!frame.vlan)
            throw Failure(ExitStatus::BadInput, "--vlan-prio: expected --vlan to go with it");
        frame.vlan->priority = static_cast<std::uint8_t>(number("--vlan-prio", options.vlanPriority, 7));
    }
    if (!options.ethertype.empty()) {
        const std::optional<ebtables::EthertypeMatch> type = ebtables::parseEthertype(options.ethertype);
        if (!type)
            wrong("--ethertype", options.ethertype, "IPv4, IPv6, ARP, another name, 0x600 to 0xffff, or LENGTH");
        if (!type->lengthField && type->number == ethertype::vlan && !frame.vlan)
            wrong("--ethertype", options.ethertype, "the type after the tag, and --vlan for the tag");
        constexpr std::uint16_t someLength = 0x40;
        frame.type = type->lengthField ? someLength : type->number;
    }
    setAddress(frame, "--src", options.source, &Frame::ip4Source, &Frame::ip6Source);
    setAddress(frame, "--dst", options.destination, &Frame::ip4Destination, &Frame::ip6Destination);
    if (!options.protocol.empty()) {
        const std::optional<ebtables::RangeMatch> protocol = ebtables::parseIpProtocol(lowerCase(options.protocol));
        if (!protocol)
            wrong("--proto", options.protocol, "tcp, udp, another name of an IP protocol, or a number from 0 to 255");
        frame.protocol = static_cast<std::uint8_t>(protocol->first);
    }
    for (const auto& [option, port] :
         {std::pair("--port", options.port), std::pair("--src-port", options.sourcePort)}) {
        if (!port.empty() && !frame.protocol)
            wrong(option, port, "--proto tcp or udp to go with it");
    }
    if (!options.port.empty())
        frame.destinationPort = number("--port", options.port, 65535);
    if (!options.sourcePort.empty())
        frame.sourcePort = number("--src-port", options.sourcePort, 65535);
    frame.laterFragment = options.fragment;
    return frame;
}

std::string contentsOf(const Frame& frame)
{
    std::string text;
    const auto begin = [&text](const std::string& what) { text += (text.empty() ? "" : ", ") + what; };
    if (frame.source)
        begin("from " + toText(*frame.source));
    if (frame.destination)
        text += (frame.source ? " to " : "to ") + toText(*frame.destination);
    if (frame.vlan)
        begin("VLAN " + std::to_string(frame.vlan->id) + " priority " + std::to_string(frame.vlan->priority));
    if (frame.type)
        begin(typeText(*frame.type));
    const auto address = [&](const char* what, const auto& ip4, const auto& ip6) {
        if (ip4)
            text += what + toText(*ip4);
        if (ip6)
            text += what + toText(*ip6);
    };
    address(" from ", frame.ip4Source, frame.ip6Source);
    address(" to ", frame.ip4Destination, frame.ip6Destination);
    if (frame.protocol)
        begin("protocol " + std::to_string(*frame.protocol));
    if (frame.sourcePort)
        begin("source port " + std::to_string(*frame.sourcePort));
    if (frame.destinationPort)
        begin("port " + std::to_string(*frame.destinationPort));
    if (frame.laterFragment)
        begin("a later fragment");
    return text;
}

std::string toText(const Frame& frame)
{
    const std::string contents = contentsOf(frame);
    return "arriving on " + frame.in + (frame.out.empty() ? ", for the device itself" : ", leaving by " + frame.out) +
           (contents.empty() ? "" : ", " + contents);
}

} // namespace moatctl
