// A way to a configuration server, whatever it goes over: bytes in, bytes out, without waiting.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <poll.h>
#include <string>
#include <string_view>

namespace ovsdb
{

// It may have to be made first (names looked up, keys agreed upon): read and write go on with that, and neither gives
// nor takes anything until it is done. Threading: one thread at a time.
class Stream
{
public:
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    virtual ~Stream() = default;

    // What to wait for before read and write are called again. wantsWrite: there is something to write.
    virtual pollfd interest(bool wantsWrite) const = 0;

    // Reads once. The bytes are valid until the next call; none: nothing is there. Throws ConnectionError when the
    // connection cannot be made or has ended, ForeignServerError when the peer is not to be trusted.
    virtual std::string_view read() = 0;
    // Whether read has more to give without waiting for anything.
    virtual bool hasMore() const { return false; }

    // Writes what is taken and returns how much that was. Throws as read does.
    virtual std::size_t write(std::string_view bytes) = 0;
};

// A server, and how to begin a connection to it. open throws as Stream::read does.
struct Server {
    std::string name; // for messages
    std::function<std::unique_ptr<Stream>()> open;
};

// That of a socket on this machine; see Connection.
Server localServer(const std::string& socketPath);

} // namespace ovsdb
