#include "moatctl/command_line/selection_options.hpp"

#include "ebtables/operands.hpp"
#include "moatctl/bridge/frame.hpp"
#include "moatctl/exit_status.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/values.hpp"

#include <string_view>
#include <utility>

namespace moatctl
{

namespace
{

[[noreturn]] void wrong(std::string_view option, const std::string& value, std::string_view expected)
{
    throw Failure(ExitStatus::BadInput,
                  std::string(option) + ' ' + inQuotes(value) + ": expected " + std::string(expected));
}

// What the word means, or nothing when the option was not given.
template <typename Parse>
auto parsed(std::string_view option, const std::string& word, const Parse& parse, std::string_view expected)
{
    decltype(parse(word)) result;
    if (word.empty())
        return result;
    result = parse(word);
    if (!result)
        wrong(option, word, expected);
    return result;
}

bool isType(const ebtables::Rule& rule, std::uint16_t type)
{
    return rule.ethertype && !rule.ethertype->lengthField && rule.ethertype->number == type;
}

// The addresses of one family, which the ethertype then is.
void readAddress(ebtables::Rule& rule, std::string_view option, const std::string& word, bool isSource)
{
    if (word.empty())
        return;
    const auto ip4 = ebtables::parseNetwork<4>(word);
    const auto ip6 = ebtables::parseNetwork<16>(word);
    if (!ip4 && !ip6)
        wrong(option, word, "an IPv4 or IPv6 address or network");
    const std::uint16_t type = ip4 ? ethertype::ip4 : ethertype::ip6;
    if (rule.ethertype && !isType(rule, type))
        wrong(option, word, "an address of the same family as the other address and --ethertype");
    rule.ethertype = ebtables::EthertypeMatch{type};
    if (ip4)
        (isSource ? rule.ip.source : rule.ip.destination) = ip4;
    else
        (isSource ? rule.ip6.source : rule.ip6.destination) = ip6;
}

template <typename Matches>
void readTransport(Matches& ip, const SelectionOptions& options)
{
    ip.protocol = parsed("--proto", lowerCase(options.protocol), ebtables::parseIpProtocol,
                         "tcp, udp, another name of an IP protocol, or a number from 0 to 255");
    constexpr std::string_view ports = "a port, or two with a colon between them";
    ip.destinationPort = parsed("--port", options.port, ebtables::parsePorts, ports);
    ip.sourcePort = parsed("--src-port", options.sourcePort, ebtables::parsePorts, ports);
    const bool hasPorts =
        ip.protocol && (ip.protocol->first == ipProtocol::tcp || ip.protocol->first == ipProtocol::udp);
    for (const auto& [option, port] :
         {std::pair("--port", options.port), std::pair("--src-port", options.sourcePort)}) {
        if (!port.empty() && !hasPorts)
            wrong(option, port, "--proto tcp or udp to go with it");
    }
}

// The kernel's rules do not look into a packet behind a tag.
void readTagged(ebtables::Rule& rule, const SelectionOptions& options)
{
    rule.vlan.id = parsed(
        "--vlan", options.vlan, [](const std::string& word) { return ebtables::parseDecimal(word, 4094); },
        "a number from 0 to 4094");
    rule.vlan.encapsulated = rule.ethertype;
    rule.ethertype = ebtables::EthertypeMatch{ethertype::vlan};
    for (const auto& [option, value] : {std::pair("--src", options.source), std::pair("--dst", options.destination),
                                        std::pair("--proto", options.protocol), std::pair("--port", options.port),
                                        std::pair("--src-port", options.sourcePort)}) {
        if (!value.empty())
            wrong(option, value, "no --vlan: rules of a bridge do not look into packets behind a tag");
    }
}

} // namespace

void addSelectionOptions(const Command& command, SelectionOptions& options)
{
    command.option("--in", "PORT", "Frames that arrive on this port", options.in);
    const Option out = command.option("--out", "PORT", "Frames that are to leave by this port", options.out);
    command.flag("--to-device", "Frames for the device itself only", options.toDevice).excludes(out);
    command.option("--src-mac", "MAC", "From this address, or address/mask", options.sourceMac);
    command.option("--dst-mac", "MAC", "To this address, or address/mask", options.destinationMac);
    command.option("--vlan", "NUMBER", "With a tag of this VLAN", options.vlan);
    command.option("--ethertype", "TYPE", "IPv4, IPv6, ARP, 0x88cc; with --vlan behind the tag", options.ethertype);
    command.option("--src", "NETWORK", "From this IP address or network, untagged", options.source);
    command.option("--dst", "NETWORK", "To this IP address or network, untagged", options.destination);
    command.option("--proto", "PROTO", "IP protocol: tcp, udp, icmp or a number; untagged", options.protocol);
    command.option("--port", "NUMBER", "TCP or UDP destination port; needs --proto", options.port);
    command.option("--src-port", "NUMBER", "TCP or UDP source port; needs --proto", options.sourcePort);
}

ebtables::Rule ruleOf(const SelectionOptions& options)
{
    constexpr std::string_view port = "the name of a port, of at most 15 characters";
    constexpr std::string_view mac = "a MAC address such as 00:11:22:33:44:55, or address/mask";
    ebtables::Rule rule;
    rule.in = parsed("--in", options.in, ebtables::parseInterface, port);
    rule.out = parsed("--out", options.out, ebtables::parseInterface, port);
    rule.source = parsed("--src-mac", options.sourceMac, ebtables::parseMac, mac);
    rule.destination = parsed("--dst-mac", options.destinationMac, ebtables::parseMac, mac);
    rule.ethertype = parsed("--ethertype", options.ethertype, ebtables::parseEthertype,
                            "IPv4, IPv6, ARP, another name, 0x600 to 0xffff, or LENGTH");
    if (!options.vlan.empty()) {
        readTagged(rule, options);
        return rule;
    }
    readAddress(rule, "--src", options.source, true);
    readAddress(rule, "--dst", options.destination, false);
    if (isType(rule, ethertype::ip6))
        readTransport(rule.ip6, options);
    else if (isType(rule, ethertype::ip4))
        readTransport(rule.ip, options);
    else if (const std::string& value = !options.protocol.empty() ? options.protocol
                                        : !options.port.empty()   ? options.port
                                                                  : options.sourcePort;
             !value.empty())
        wrong(!options.protocol.empty() ? "--proto"
              : !options.port.empty()   ? "--port"
                                        : "--src-port",
              value, "--ethertype IPv4 or IPv6, or an address, to go with it");
    return rule;
}

} // namespace moatctl
