// What the kernel tells over rtnetlink, to anybody: /proc and /sys have neither the neighbours of IPv6 nor the way that
// a packet would take, and a bridge's stations for root only.
#include "moatctl/bridge/connection.hpp"
#include "moatctl/bridge/rtnetlink.hpp"

#include <algorithm>
#include <cstring>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <utility>

namespace moatctl
{

namespace
{

bool read(const nlattr& attribute, MacAddress& mac)
{
    if (mnl_attr_get_payload_len(&attribute) != mac.size())
        return false;
    std::memcpy(mac.data(), mnl_attr_get_payload(&attribute), mac.size());
    return true;
}

std::optional<IpAddress> addressOf(const nlattr& attribute)
{
    const auto copy = [&attribute]<typename Address>(Address address) -> IpAddress {
        std::memcpy(address.data(), mnl_attr_get_payload(&attribute), address.size());
        return address;
    };
    if (mnl_attr_get_payload_len(&attribute) == Ip4Address{}.size())
        return copy(Ip4Address{});
    if (mnl_attr_get_payload_len(&attribute) == Ip6Address{}.size())
        return copy(Ip6Address{});
    return std::nullopt;
}

std::uint8_t familyOf(const IpAddress& address)
{
    return std::holds_alternative<Ip4Address>(address) ? AF_INET : AF_INET6;
}

void readKind(const nlattr& info, network::Link& link)
{
    const nlattr* data = nullptr;
    eachAttribute(info, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == IFLA_INFO_KIND)
            link.kind = mnl_attr_get_str(&attribute);
        else if (mnl_attr_get_type(&attribute) == IFLA_INFO_DATA)
            data = &attribute;
    });
    if (link.kind != "vlan" || data == nullptr)
        return;
    eachAttribute(*data, [&link](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == IFLA_VLAN_ID)
            link.vlan = mnl_attr_get_u16(&attribute);
    });
}

std::vector<network::Link> readLinks()
{
    std::vector<network::Link> links;
    KernelQuestion question(RTM_GETLINK, NLM_F_DUMP);
    question.header<ifinfomsg>();
    question.ask([&links](const nlmsghdr& message) {
        network::Link link;
        link.index = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message))->ifi_index;
        eachAttribute(message, sizeof(ifinfomsg), [&link](const nlattr& attribute) {
            switch (mnl_attr_get_type(&attribute)) {
            case IFLA_IFNAME:
                link.name = mnl_attr_get_str(&attribute);
                break;
            case IFLA_ADDRESS:
                read(attribute, link.mac);
                break;
            case IFLA_LINK:
                link.lower = static_cast<int>(mnl_attr_get_u32(&attribute));
                break;
            case IFLA_LINKINFO:
                readKind(attribute, link);
                break;
            default:
                break;
            }
        });
        links.push_back(std::move(link));
    });
    return links;
}

std::vector<network::Neighbour> readNeighbours(std::uint8_t family)
{
    std::vector<network::Neighbour> neighbours;
    KernelQuestion question(RTM_GETNEIGH, NLM_F_DUMP);
    question.header<ndmsg>().ndm_family = family;
    question.ask([&neighbours](const nlmsghdr& message) {
        const auto* header = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&message));
        std::optional<IpAddress> address;
        MacAddress mac{};
        bool hasMac = false;
        eachAttribute(message, sizeof(ndmsg), [&](const nlattr& attribute) {
            if (mnl_attr_get_type(&attribute) == NDA_DST)
                address = addressOf(attribute);
            else if (mnl_attr_get_type(&attribute) == NDA_LLADDR)
                hasMac = read(attribute, mac);
        });
        if (address && hasMac && (header->ndm_state & (NUD_INCOMPLETE | NUD_FAILED)) == 0)
            neighbours.push_back({header->ndm_ifindex, *address, mac});
    });
    return neighbours;
}

std::vector<network::Station> readStations()
{
    std::vector<network::Station> stations;
    KernelQuestion question(RTM_GETNEIGH, NLM_F_DUMP);
    question.header<ndmsg>().ndm_family = AF_BRIDGE;
    question.ask([&stations](const nlmsghdr& message) {
        const auto* header = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&message));
        network::Station station{.port = header->ndm_ifindex};
        bool hasMac = false;
        eachAttribute(message, sizeof(ndmsg), [&](const nlattr& attribute) {
            switch (mnl_attr_get_type(&attribute)) {
            case NDA_MASTER:
                station.bridge = static_cast<int>(mnl_attr_get_u32(&attribute));
                break;
            case NDA_LLADDR:
                hasMac = read(attribute, station.mac);
                break;
            case NDA_VLAN:
                station.vlan = mnl_attr_get_u16(&attribute);
                break;
            default:
                break;
            }
        });
        // Permanent ones are the machine's own addresses.
        if (hasMac && station.bridge != 0 && (header->ndm_state & NUD_PERMANENT) == 0)
            stations.push_back(station);
    });
    return stations;
}

void put(nlmsghdr* message, std::uint16_t type, const IpAddress& address)
{
    std::visit([&](const auto& bytes) { mnl_attr_put(message, type, bytes.size(), bytes.data()); }, address);
}

// from: an address of this machine; link: the only one that it may leave by, or 0.
std::optional<network::Route> findRoute(const IpAddress& to, const IpAddress* from, unsigned link)
{
    KernelQuestion question(RTM_GETROUTE, 0);
    auto& header = question.header<rtmsg>();
    header.rtm_family = familyOf(to);
    header.rtm_dst_len = header.rtm_family == AF_INET ? 32 : 128;
    if (from != nullptr)
        header.rtm_src_len = header.rtm_dst_len;
    put(question.message(), RTA_DST, to);
    if (from != nullptr)
        put(question.message(), RTA_SRC, *from);
    if (link != 0)
        mnl_attr_put_u32(question.message(), RTA_OIF, link);
    std::optional<network::Route> route;
    const int error = question.ask([&route](const nlmsghdr& message) {
        const auto* answer = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
        route.emplace();
        route->isHere = answer->rtm_type == RTN_LOCAL;
        eachAttribute(message, sizeof(rtmsg), [&route](const nlattr& attribute) {
            if (mnl_attr_get_type(&attribute) == RTA_OIF)
                route->link = static_cast<int>(mnl_attr_get_u32(&attribute));
            else if (mnl_attr_get_type(&attribute) == RTA_GATEWAY)
                route->gateway = addressOf(attribute);
        });
    });
    return error == 0 ? route : std::nullopt;
}

} // namespace

NetworkFacts learnFacts(const Connection& connection)
{
    NetworkFacts facts;
    const unsigned link = connection.clientLink.empty() ? 0 : if_nametoindex(connection.clientLink.c_str());
    facts.toServer = findRoute(connection.server, nullptr, link);
    const bool isHere = facts.toServer && facts.toServer->isHere;
    facts.toClient = findRoute(connection.client, isHere ? &connection.server : nullptr, link);
    facts.links = readLinks();
    facts.neighbours = readNeighbours(familyOf(connection.client));
    facts.stations = readStations();
    return facts;
}

} // namespace moatctl
