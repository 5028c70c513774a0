// A non-blocking connection to a local socket whose owner is trusted.
#pragma once

#include <string>
#include <string_view>

namespace ovsdb
{

// Owns its descriptor. Threading: none of its own.
class Connection
{
public:
    // Connects at once. Throws ConnectionError when nobody listens, ForeignServerError when the peer's process belongs
    // to a user that is neither root nor this process's own (anybody can create a socket in /tmp first).
    explicit Connection(const std::string& socketPath);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int descriptor() const { return m_descriptor; }

    // Reads once. The bytes read are valid until the next call; none: nothing is there. Throws ConnectionError when
    // the connection has ended.
    std::string_view read();

    // Writes what the socket takes and returns how much that was. Throws ConnectionError as read does.
    std::size_t write(std::string_view bytes);

private:
    int m_descriptor = -1;
    std::string m_buffer;
};

} // namespace ovsdb
