#include "endpoint/tcp_stream.hpp"

#include "ovsdb/error.hpp"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace endpoint
{

namespace
{

using ovsdb::ConnectionError;

std::string reason(int error)
{
    return std::generic_category().message(error);
}

} // namespace

bool isLoopback(const Address& address)
{
    if (address.value.ss_family == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, &address.value, sizeof v4);
        return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
    }
    if (address.value.ss_family != AF_INET6)
        return false;
    sockaddr_in6 v6{};
    std::memcpy(&v6, &address.value, sizeof v6);
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) ||
           (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) && v6.sin6_addr.s6_addr[12] == 127);
}

// What a thread of its own finds out: looking up a name may take long and cannot be interrupted. Whoever has lost
// interest leaves it behind.
struct TcpStream::Lookup {
    ~Lookup() { close(done); }

    void run()
    {
        const addrinfo hints{.ai_flags = AI_NUMERICSERV,
                             .ai_family = AF_UNSPEC,
                             .ai_socktype = SOCK_STREAM,
                             .ai_protocol = 0,
                             .ai_addrlen = 0,
                             .ai_addr = nullptr,
                             .ai_canonname = nullptr,
                             .ai_next = nullptr};
        addrinfo* found = nullptr;
        const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
        if (error != 0)
            problem = error == EAI_SYSTEM ? reason(errno) : gai_strerror(error);
        for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
            Address address{.value = {}, .size = one->ai_addrlen};
            std::memcpy(&address.value, one->ai_addr, one->ai_addrlen);
            addresses.push_back(address);
        }
        if (found != nullptr)
            freeaddrinfo(found);
        eventfd_write(done, 1);
    }

    std::string host;
    std::string port;
    const int done = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::vector<Address> addresses{};
    std::string problem{};
};

TcpStream::TcpStream(const Endpoint& endpoint, bool anywhere)
    : m_name(toText(endpoint)), m_anywhere(anywhere), m_lookup(std::make_shared<Lookup>())
{
    m_lookup->host = endpoint.host;
    m_lookup->port = std::to_string(endpoint.port);
    const bool isAddress = endpoint.host.find_first_not_of("0123456789.") == std::string::npos ||
                           endpoint.host.find(':') != std::string::npos;
    if (isAddress)
        m_lookup->run();
    else
        std::thread([lookup = m_lookup] { lookup->run(); }).detach();
}

TcpStream::~TcpStream()
{
    if (m_socket >= 0)
        close(m_socket);
}

pollfd TcpStream::interest(bool wantsWrite) const
{
    if (m_lookup)
        return {.fd = m_lookup->done, .events = POLLIN, .revents = 0};
    const int events = m_connected ? POLLIN | (wantsWrite ? POLLOUT : 0) : POLLOUT;
    return {.fd = m_socket, .events = static_cast<short>(events), .revents = 0};
}

void TcpStream::takeAddresses()
{
    const std::shared_ptr<Lookup> lookup = std::move(m_lookup);
    if (!lookup->problem.empty())
        throw ConnectionError("no configuration server at " + m_name + ": " + lookup->problem);
    for (const Address& address : lookup->addresses) {
        if (m_anywhere || isLoopback(address))
            m_addresses.push_back(address);
    }
    if (m_addresses.empty())
        throw ovsdb::ForeignServerError(m_name +
                                        " refused: it leads to another machine, where everybody on the way can "
                                        "read and change what is said; expected ssl:, or --insecure-tcp");
    tryNext();
}

void TcpStream::tryNext()
{
    while (m_next < m_addresses.size()) {
        const Address& address = m_addresses[m_next++];
        if (m_socket >= 0)
            close(m_socket);
        m_socket = socket(address.value.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (m_socket < 0) {
            m_lastError = reason(errno);
            continue;
        }
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // a request is one write, and is waited for
        if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address.value), address.size) == 0 ||
            errno == EINPROGRESS)
            return;
        m_lastError = reason(errno);
    }
    throw ConnectionError("no configuration server at " + m_name + ": " + m_lastError);
}

bool TcpStream::isConnected()
{
    if (m_connected)
        return true;
    if (m_lookup) {
        pollfd done{.fd = m_lookup->done, .events = POLLIN, .revents = 0};
        if (poll(&done, 1, 0) != 1)
            return false;
        takeAddresses();
    }
    for (;;) {
        pollfd event{.fd = m_socket, .events = POLLOUT, .revents = 0};
        if (poll(&event, 1, 0) != 1)
            return false;
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &size);
        if (error == 0)
            break;
        m_lastError = reason(error);
        tryNext();
    }
    m_connected = true;
    return true;
}

std::string_view TcpStream::read()
{
    if (!isConnected())
        return {};
    const ssize_t count = recv(m_socket, m_buffer.data(), m_buffer.size(), 0);
    if (count > 0)
        return {m_buffer.data(), static_cast<std::size_t>(count)};
    if (count == 0)
        throw ConnectionError("connection closed by " + m_name);
    if (errno == EAGAIN || errno == EINTR)
        return {};
    throw ConnectionError("connection to " + m_name + " lost: " + reason(errno));
}

std::size_t TcpStream::write(std::string_view bytes)
{
    if (!isConnected())
        return 0;
    const ssize_t count = send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0)
        return static_cast<std::size_t>(count);
    if (errno == EAGAIN || errno == EINTR)
        return 0;
    throw ConnectionError("connection to " + m_name + " lost: " + reason(errno));
}

} // namespace endpoint
