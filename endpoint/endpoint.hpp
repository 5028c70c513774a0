// Where a configuration server is, in the words of a command line: unix:PATH, tcp:HOST:PORT, ssl:HOST:PORT.
#pragma once

#include "ovsdb/stream.hpp"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace endpoint
{

enum class Kind { Local, Tcp, Tls };

struct Endpoint {
    Kind kind = Kind::Local;
    std::string path{}; // of a Local one
    std::string host{}; // name or address, without brackets
    std::uint16_t port = 0;

    bool operator==(const Endpoint&) const = default;
};

// As it was written: "ssl:[2001:db8::1]:6640".
std::string toText(const Endpoint& endpoint);

// What was given cannot be used, whatever the servers say. One line: which setting, the value, what was expected.
class Mistake : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// ENDPOINT[,ENDPOINT...]; a text with a '/' and without "unix:" in front is a path as a whole. Throws Mistake, without
// the name of the setting.
std::vector<Endpoint> parseEndpoints(const std::string& text);

// How they are reached.
struct Access {
    std::string privateKey{};
    std::string certificate{};
    std::string caCertificate{};
    bool insecureTcp = false; // tcp: also to other machines
};

// For ovsdb::ClientOptions. Reads the files when one of the endpoints is Tls. Throws Mistake when one is missing,
// cannot be used, or the key may be read by everybody. The servers' certificates are always checked: against the CA's,
// and against the host. A Tcp one is refused when it leads to another machine, unless that is allowed.
std::vector<ovsdb::Server> serversOf(const std::vector<Endpoint>& endpoints, const Access& access);

} // namespace endpoint
