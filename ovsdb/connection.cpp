#include "ovsdb/connection.hpp"

#include "ovsdb/error.hpp"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace ovsdb
{

namespace
{

constexpr std::size_t readSize = 32 * 1024;

std::string reason(int error)
{
    return std::generic_category().message(error);
}

int connectTo(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw ConnectionError("socket path \"" + path + "\": expected 1 to " +
                              std::to_string(sizeof address.sun_path - 1) + " bytes");
    std::memcpy(address.sun_path, path.data(), path.size());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
        throw ConnectionError("no socket: " + reason(errno));
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(descriptor);
        throw ConnectionError(
            (error == EACCES ? "not allowed to use the configuration server at " : "no configuration server at ") +
            path + ": " + reason(error));
    }
    return descriptor;
}

void checkOwner(int descriptor, const std::string& path)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        throw ConnectionError("owner of " + path + " cannot be told: " + reason(errno));
    if (peer.uid != 0 && peer.uid != geteuid())
        throw ForeignServerError("socket " + path + " refused: it is served by user " + std::to_string(peer.uid) +
                                 ", expected 0 or " + std::to_string(geteuid()));
}

} // namespace

Connection::Connection(const std::string& socketPath) : m_descriptor(connectTo(socketPath))
{
    try {
        checkOwner(m_descriptor, socketPath);
        m_buffer.resize(readSize);
    } catch (...) {
        close(m_descriptor);
        throw;
    }
}

Connection::~Connection()
{
    close(m_descriptor);
}

std::string_view Connection::read()
{
    const ssize_t count = recv(m_descriptor, m_buffer.data(), m_buffer.size(), 0);
    if (count > 0)
        return {m_buffer.data(), static_cast<std::size_t>(count)};
    if (count == 0)
        throw ConnectionError("connection closed by the server");
    if (errno == EAGAIN || errno == EINTR)
        return {};
    throw ConnectionError("connection lost: " + reason(errno));
}

std::size_t Connection::write(std::string_view bytes)
{
    const ssize_t count = send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0)
        return static_cast<std::size_t>(count);
    if (errno == EAGAIN || errno == EINTR)
        return 0;
    throw ConnectionError("connection lost: " + reason(errno));
}

} // namespace ovsdb
