#include "ovsdb/stream.hpp"

#include "ovsdb/connection.hpp"

namespace ovsdb
{

namespace
{

class LocalStream final : public Stream
{
public:
    explicit LocalStream(const std::string& socketPath) : m_connection(socketPath) {}

    pollfd interest(bool wantsWrite) const override
    {
        const int events = POLLIN | (wantsWrite ? POLLOUT : 0);
        return {.fd = m_connection.descriptor(), .events = static_cast<short>(events), .revents = 0};
    }
    std::string_view read() override { return m_connection.read(); }
    std::size_t write(std::string_view bytes) override { return m_connection.write(bytes); }

private:
    Connection m_connection;
};

} // namespace

Server localServer(const std::string& socketPath)
{
    return {.name = socketPath, .open = [socketPath] { return std::make_unique<LocalStream>(socketPath); }};
}

} // namespace ovsdb
