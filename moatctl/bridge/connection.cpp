#include "moatctl/bridge/connection.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <set>
#include <sstream>

namespace moatctl
{

namespace
{

constexpr MacAddress everybody{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

std::optional<IpAddress> parseAddress(const std::string& text)
{
    Ip4Address ip4{};
    if (inet_pton(AF_INET, text.c_str(), ip4.data()) == 1)
        return ip4;
    Ip6Address ip6{};
    if (inet_pton(AF_INET6, text.c_str(), ip6.data()) != 1)
        return std::nullopt;
    constexpr Ip6Address mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::equal(mapped.begin(), mapped.begin() + 12, ip6.begin())) { // IPv4 as a socket of IPv6 shows it
        std::copy(ip6.begin() + 12, ip6.end(), ip4.begin());
        return ip4;
    }
    return ip6;
}

bool parsePort(std::string_view text, std::uint16_t& port)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

// One end of the connection as this machine reaches it.
struct Hop {
    int bridge = 0;
    std::string port;
    MacAddress station{}; // its own address, or that of the gateway
    IpAddress stationIp{};
    MacAddress own{}; // of the interface here
    std::optional<std::uint16_t> vlan;
};

const network::Link* find(const NetworkFacts& facts, int index)
{
    const auto link = std::ranges::find(facts.links, index, &network::Link::index);
    return link == facts.links.end() ? nullptr : &*link;
}

std::optional<Hop> hopTo(const IpAddress& address, const std::optional<network::Route>& route,
                         const NetworkFacts& facts)
{
    const network::Link* link = route && !route->isHere ? find(facts, route->link) : nullptr;
    if (link == nullptr)
        return std::nullopt;
    const network::Link* bridge = link->kind == "vlan" ? find(facts, link->lower) : link;
    if (bridge == nullptr || bridge->kind != "bridge")
        return std::nullopt;
    Hop hop{.bridge = bridge->index,
            .port = {},
            .stationIp = route->gateway.value_or(address),
            .own = link->mac,
            .vlan = link->vlan};
    const auto neighbour = std::ranges::find_if(facts.neighbours, [&](const network::Neighbour& known) {
        return known.link == link->index && known.address == hop.stationIp;
    });
    if (neighbour == facts.neighbours.end())
        return std::nullopt;
    hop.station = neighbour->mac;
    std::set<int> ports;
    for (const network::Station& known : facts.stations) {
        const bool sameVlan = !hop.vlan || !known.vlan || hop.vlan == known.vlan;
        if (known.bridge == hop.bridge && known.mac == hop.station && sameVlan)
            ports.insert(known.port);
    }
    const network::Link* port = ports.size() == 1 ? find(facts, *ports.begin()) : nullptr;
    if (port == nullptr)
        return std::nullopt;
    hop.port = port->name;
    return hop;
}

void setAddresses(Frame& frame, const IpAddress& from, const std::optional<IpAddress>& to)
{
    if (const auto* ip4 = std::get_if<Ip4Address>(&from)) {
        frame.type = ethertype::ip4;
        frame.ip4Source = *ip4;
        if (to && std::holds_alternative<Ip4Address>(*to))
            frame.ip4Destination = std::get<Ip4Address>(*to);
    } else {
        frame.type = ethertype::ip6;
        frame.ip6Source = std::get<Ip6Address>(from);
        if (to && std::holds_alternative<Ip6Address>(*to))
            frame.ip6Destination = std::get<Ip6Address>(*to);
    }
}

// The group that whoever has the address listens to.
Ip6Address solicitedNode(const Ip6Address& address)
{
    Ip6Address group{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::copy(address.end() - 3, address.end(), group.end() - 3);
    return group;
}

bool isLinkLocal(const Ip6Address& address)
{
    return address[0] == 0xfe && (address[1] & 0xc0U) == 0x80;
}

// One direction of the connection between two stations, or from a station to this device.
class Direction
{
public:
    // frame: the ports, MAC addresses and tag of what goes this way.
    Direction(Frame frame, IpAddress stationIp, std::vector<ConnectionFrame>& frames)
        : m_frame(std::move(frame)), m_stationIp(stationIp), m_frames(frames)
    {
    }

    void addData(const IpAddress& from, std::uint16_t fromPort, const IpAddress& to, std::uint16_t toPort)
    {
        Frame frame = m_frame;
        setAddresses(frame, from, to);
        frame.protocol = ipProtocol::tcp;
        frame.sourcePort = fromPort;
        frame.destinationPort = toPort;
        m_frames.push_back({ConnectionFrame::Purpose::Data, std::move(frame)});
    }

    // The station's question for the address, and its answer to the same question. asked: not known, of a gateway.
    void addResolution(const std::optional<IpAddress>& asked)
    {
        Frame question = m_frame;
        Frame answer = m_frame;
        if (std::holds_alternative<Ip4Address>(m_stationIp)) {
            question.destination = everybody;
            question.type = answer.type = ethertype::arp;
        } else {
            setSolicitation(question, asked);
            // Whoever asks a link-local address does so from one of its own.
            const bool known = asked && !isLinkLocal(std::get<Ip6Address>(m_stationIp));
            setAddresses(answer, m_stationIp, known ? asked : std::nullopt);
            question.protocol = answer.protocol = ipProtocol::icmp6;
        }
        m_frames.push_back({ConnectionFrame::Purpose::AddressResolution, std::move(question)});
        m_frames.push_back({ConnectionFrame::Purpose::AddressResolution, std::move(answer)});
    }

private:
    void setSolicitation(Frame& frame, const std::optional<IpAddress>& asked) const
    {
        frame.destination.reset();
        setAddresses(frame, m_stationIp, std::nullopt);
        if (!asked || !std::holds_alternative<Ip6Address>(*asked))
            return;
        const Ip6Address group = solicitedNode(std::get<Ip6Address>(*asked));
        frame.ip6Destination = group;
        frame.destination = MacAddress{0x33, 0x33, group[12], group[13], group[14], group[15]};
    }

    Frame m_frame;
    IpAddress m_stationIp;
    std::vector<ConnectionFrame>& m_frames;
};

Frame frameFrom(const Hop& hop)
{
    Frame frame;
    frame.in = hop.port;
    frame.source = hop.station;
    frame.destination = hop.own;
    if (hop.vlan)
        frame.vlan = VlanTag{*hop.vlan, 0};
    return frame;
}

Frame frameBetween(const Hop& from, const Hop& to)
{
    Frame frame = frameFrom(from);
    frame.out = to.port;
    frame.destination = to.station;
    return frame;
}

} // namespace

std::optional<Connection> parseConnection(const std::string& text)
{
    std::istringstream words(text);
    std::string client;
    std::string clientPort;
    std::string server;
    std::string serverPort;
    std::string more;
    if (!(words >> client >> clientPort >> server >> serverPort) || words >> more)
        return std::nullopt;
    Connection connection;
    const auto withoutLink = [](const std::string& address) { return address.substr(0, address.find('%')); };
    if (const std::size_t place = client.find('%'); place != std::string::npos)
        connection.clientLink = client.substr(place + 1);
    const auto from = parseAddress(withoutLink(client));
    const auto to = parseAddress(withoutLink(server));
    if (!from || !to || from->index() != to->index() || !parsePort(clientPort, connection.clientPort) ||
        !parsePort(serverPort, connection.serverPort))
        return std::nullopt;
    connection.client = *from;
    connection.server = *to;
    return connection;
}

std::vector<ConnectionFrame> framesOf(const Connection& connection, const NetworkFacts& facts)
{
    std::vector<ConnectionFrame> frames;
    const bool isHere = facts.toServer && facts.toServer->isHere;
    const std::optional<Hop> client = hopTo(connection.client, facts.toClient, facts);
    const std::optional<Hop> server = hopTo(connection.server, facts.toServer, facts);
    const bool between = client && server && client->bridge == server->bridge && client->vlan == server->vlan;
    if (between && client->port == server->port)
        return frames;                                                      // never comes to this bridge's chains
    std::vector<std::pair<Direction, std::optional<IpAddress>>> directions; // and the address that is asked for
    if (client) {
        directions.emplace_back(
            Direction(between ? frameBetween(*client, *server) : frameFrom(*client), client->stationIp, frames),
            between  ? std::optional(server->stationIp)
            : isHere ? std::optional(connection.server)
                     : std::nullopt);
        directions.back().first.addData(connection.client, connection.clientPort, connection.server,
                                        connection.serverPort);
    }
    if (server) {
        directions.emplace_back(
            Direction(between ? frameBetween(*server, *client) : frameFrom(*server), server->stationIp, frames),
            between ? std::optional(client->stationIp) : std::nullopt);
        directions.back().first.addData(connection.server, connection.serverPort, connection.client,
                                        connection.clientPort);
    }
    for (auto& [direction, asked] : directions)
        direction.addResolution(asked);
    return frames;
}

} // namespace moatctl
