#include "endpoint/endpoint.hpp"

#include "endpoint/tcp_stream.hpp"
#include "endpoint/tls.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <charconv>
#include <memory>

namespace endpoint
{

namespace
{

constexpr std::string_view expected = "expected unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT, HOST in [] if it is an IPv6 "
                                      "address, several separated by commas";

[[noreturn]] void refuse(std::string_view text)
{
    throw Mistake(text::inQuotes(text) + ": " + std::string(expected));
}

bool isHostCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           c == '_' || c == '%';
}

Endpoint parseRemote(Kind kind, std::string_view place, std::string_view whole)
{
    const std::size_t colon = place.rfind(':');
    if (colon == std::string_view::npos)
        refuse(whole);
    std::string_view host = place.substr(0, colon);
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    if (bracketed)
        host = host.substr(1, host.size() - 2);
    const bool fits =
        std::ranges::all_of(host, [bracketed](char c) { return isHostCharacter(c) || (bracketed && c == ':'); });
    const std::string_view number = place.substr(colon + 1);
    Endpoint result{.kind = kind, .host = std::string(host)};
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), result.port);
    if (host.empty() || !fits || error != std::errc() || end != number.data() + number.size() || result.port == 0)
        refuse(whole);
    return result;
}

Endpoint parseOne(std::string_view text)
{
    const auto after = [text](std::string_view scheme) { return text.substr(scheme.size()); };
    if (text.starts_with("tcp:"))
        return parseRemote(Kind::Tcp, after("tcp:"), text);
    if (text.starts_with("ssl:"))
        return parseRemote(Kind::Tls, after("ssl:"), text);
    const bool isNamed = text.starts_with("unix:");
    const std::string_view path = isNamed ? after("unix:") : text;
    // Whoever leaves the kind out means a host.
    if (path.empty() || (!isNamed && path.find('/') == path.npos && path.find(':') != path.npos))
        refuse(text);
    return {.kind = Kind::Local, .path = std::string(path)};
}

bool namesAKind(std::string_view text)
{
    return text.starts_with("unix:") || text.starts_with("tcp:") || text.starts_with("ssl:");
}

} // namespace

std::string toText(const Endpoint& endpoint)
{
    if (endpoint.kind == Kind::Local)
        return endpoint.path;
    const bool brackets = endpoint.host.find(':') != std::string::npos;
    return (endpoint.kind == Kind::Tls ? "ssl:" : "tcp:") + (brackets ? '[' + endpoint.host + ']' : endpoint.host) +
           ':' + std::to_string(endpoint.port);
}

std::vector<Endpoint> parseEndpoints(const std::string& text)
{
    if (!namesAKind(text)) // a path, whatever is in it
        return {parseOne(text)};
    std::vector<Endpoint> endpoints;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const std::string_view word = std::string_view(text).substr(begin, end - begin);
        if (!namesAKind(word))
            refuse(word.empty() ? text : word);
        Endpoint endpoint = parseOne(word);
        if (std::ranges::find(endpoints, endpoint) != endpoints.end())
            throw Mistake(text::inQuotes(word) + ": named twice, expected different servers");
        endpoints.push_back(std::move(endpoint));
        begin = end + 1;
    }
    return endpoints;
}

std::vector<ovsdb::Server> serversOf(const std::vector<Endpoint>& endpoints, const Access& access)
{
    std::shared_ptr<const Credentials> credentials;
    std::vector<ovsdb::Server> servers;
    for (const Endpoint& endpoint : endpoints) {
        if (endpoint.kind == Kind::Local) {
            servers.push_back(ovsdb::localServer(endpoint.path));
            continue;
        }
        if (endpoint.kind == Kind::Tls && !credentials)
            credentials = std::make_shared<const Credentials>(access);
        const bool anywhere = endpoint.kind == Kind::Tls || access.insecureTcp;
        servers.push_back({.name = toText(endpoint), .open = [endpoint, credentials, anywhere] {
                               auto tcp = std::make_unique<TcpStream>(endpoint, anywhere);
                               std::unique_ptr<ovsdb::Stream> stream = std::move(tcp);
                               if (endpoint.kind == Kind::Tls)
                                   stream = secure(std::move(stream), endpoint, credentials);
                               return stream;
                           }});
    }
    return servers;
}

} // namespace endpoint
