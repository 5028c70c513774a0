// The frames that a connection over the bridge consists of, and those without which it ends: from what the machine
// knows of its network, as plain values.
#pragma once

#include "moatctl/bridge/frame.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace moatctl
{

using IpAddress = std::variant<Ip4Address, Ip6Address>;

// Over TCP.
struct Connection {
    IpAddress client{};
    IpAddress server{};
    std::uint16_t clientPort = 0;
    std::uint16_t serverPort = 0;
    std::string clientLink{}; // a link-local address means something on one interface only
};

// As sshd says it: "client port server port". Nothing when it is not that.
std::optional<Connection> parseConnection(const std::string& text);

// What the kernel knows. Interfaces go by their index; 0 is none.
namespace network
{
struct Link {
    int index = 0;
    std::string name{};
    std::string kind{}; // "bridge", "vlan"; "" of a plain one
    MacAddress mac{};
    int lower = 0;                       // what it stands on
    std::optional<std::uint16_t> vlan{}; // whose frames it has, of kind "vlan"
};
struct Neighbour {
    int link = 0;
    IpAddress address{};
    MacAddress mac{};
};
struct Station { // behind a port of a bridge
    int bridge = 0;
    int port = 0;
    MacAddress mac{};
    std::optional<std::uint16_t> vlan{};
};
struct Route {
    bool isHere = false; // the address is one of this machine's
    int link = 0;
    std::optional<IpAddress> gateway{};
};
} // namespace network

struct NetworkFacts {
    std::vector<network::Link> links{};
    std::vector<network::Neighbour> neighbours{};
    std::vector<network::Station> stations{};
    std::optional<network::Route> toClient{};
    std::optional<network::Route> toServer{};
};

// Asks the kernel. What it does not tell is left out.
NetworkFacts learnFacts(const Connection& connection);

struct ConnectionFrame {
    enum class Purpose { Data, AddressResolution };
    Purpose purpose = Purpose::Data;
    Frame frame{};
};

// The frames that the chains see of the connection, those of its data first: to this device from the port of the client
// (or of the gateway that it comes by), or, when the connection is between two ports, both ways between these. Empty
// when it does not lead over a bridge or the port cannot be told. What this device sends itself meets no chain of ours.
std::vector<ConnectionFrame> framesOf(const Connection& connection, const NetworkFacts& facts);

} // namespace moatctl
