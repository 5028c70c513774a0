// A connection over TCP: the name is looked up and the addresses are tried one after the other, without waiting.
#pragma once

#include "endpoint/endpoint.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace endpoint
{

struct Address {
    sockaddr_storage value;
    socklen_t size;
};

// Whether it is one of this machine's own loopback addresses.
bool isLoopback(const Address& address);

class TcpStream final : public ovsdb::Stream
{
public:
    // anywhere: else only addresses of this machine are connected to, whatever the name stands for. Throws
    // ovsdb::ConnectionError.
    TcpStream(const Endpoint& endpoint, bool anywhere);
    ~TcpStream() override;

    pollfd interest(bool wantsWrite) const override;
    std::string_view read() override;
    std::size_t write(std::string_view bytes) override;

    // Goes on with connecting. Whether that is done; then read and write are what the socket does. Throws as they do.
    bool isConnected();
    int descriptor() const { return m_socket; }

private:
    struct Lookup;
    void takeAddresses();
    void tryNext();

    const std::string m_name; // for messages
    const bool m_anywhere;
    std::shared_ptr<Lookup> m_lookup; // while the name is looked up
    std::vector<Address> m_addresses;
    std::size_t m_next = 0;
    int m_socket = -1;
    bool m_connected = false;
    std::string m_lastError;
    std::array<char, 32 * 1024> m_buffer;
};

} // namespace endpoint
