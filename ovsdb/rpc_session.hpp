// JSON-RPC as OVSDB uses it, without input and output of its own: bytes in, messages out, and the other way round.
#pragma once

#include "ovsdb/json.hpp"
#include "ovsdb/message_framer.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace ovsdb
{

// An answer to a request of ours (method is empty), or a notification (method is set, params in result).
struct RpcMessage {
    std::string method;
    std::int64_t id = 0;
    Json result;
    std::optional<std::string> error; // one line: the server's name of the error and its explanation
};

// One side of one connection. Answers "echo" itself. Threading: none of its own.
class RpcSession
{
public:
    // Queues a request and returns its id.
    std::int64_t request(std::string_view method, Json params);

    // Takes bytes from the peer.
    void receive(std::string_view bytes) { m_framer.append(bytes); }

    // The next message for the user of the session, or nothing. Throws ProtocolError when the peer sends what is no
    // JSON-RPC, answers what was not asked, or asks for anything but "echo".
    std::optional<RpcMessage> next();

    // What is to be sent; consumed(n) takes away the first n bytes of it.
    const std::string& output() const { return m_output; }
    void consumed(std::size_t bytes) { m_output.erase(0, bytes); }

    // Whether the peer owes an answer or the rest of a message.
    bool waiting() const { return !m_pending.empty() || m_framer.unfinished(); }

private:
    std::optional<RpcMessage> handle(const Json& message);
    void send(const Json& message);

    MessageFramer m_framer;
    std::string m_output;
    std::int64_t m_lastId = 0;
    std::set<std::int64_t> m_pending;
};

// "error: details" of an error that a server sent, cut to a length that fits a log line.
std::string describeError(const Json& error);

} // namespace ovsdb
