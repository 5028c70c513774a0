// JSON-RPC as OVSDB uses it, without input and output of its own: bytes in, messages out, and the other way round.
#pragma once

#include "ovsdb/json.hpp"
#include "ovsdb/message_framer.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace ovsdb
{

// A row of a table, cut out of a message whose rest is still to come.
struct RpcRow {
    std::string table;
    std::string name;
    Json value;
};

// An answer to a request of ours (method is empty), or a notification (method is set, params in result). Or a row
// ahead of the message that it belongs to: then only row is set.
struct RpcMessage {
    std::string method{};
    std::int64_t id = 0;
    Json result{};
    std::optional<std::string> error{}; // one line: the server's name of the error and its explanation
    std::optional<RpcRow> row{};
};

// One side of one connection. Answers "echo" itself. Threading: none of its own.
class RpcSession
{
public:
    // Queues a request and returns its id. answerParts: how many results the answer has if it is a list of small ones.
    std::int64_t request(std::string_view method, Json params, std::size_t answerParts = 0);

    // From the next message on, rows come ahead of their message; see MessageFramer. In the message the object
    // {"": number} stands in their place.
    void splitRowsAt(std::size_t depth) { m_framer.splitRowsAt(depth); }

    // Takes bytes from the peer.
    void receive(std::string_view bytes) { m_framer.append(bytes); }

    // The next message for the user of the session, or nothing. Throws ProtocolError when the peer sends what is no
    // JSON-RPC, answers what was not asked, or asks for anything but "echo".
    std::optional<RpcMessage> next();

    // What is to be sent; consumed(n) takes away the first n bytes of it.
    const std::string& output() const { return m_output; }
    void consumed(std::size_t bytes)
    {
        m_output.erase(0, bytes);
        if (!m_output.empty())
            return;
        m_output.shrink_to_fit(); // a request may have been megabytes, and the next a few bytes
        m_echoed = 0;
    }

    // Whether the peer owes an answer or the rest of a message.
    bool waiting() const { return !m_pending.empty() || m_framer.unfinished(); }

private:
    std::optional<RpcMessage> handle(const Json& message);
    void send(const Json& message);
    std::size_t largestAnswer() const; // in parts

    MessageFramer m_framer;
    std::string m_output;
    std::size_t m_echoed = 0; // bytes of it, at most
    std::int64_t m_lastId = 0;
    std::map<std::int64_t, std::size_t> m_pending; // by id: the parts of the answer
};

// "error: details" of an error that a server sent, cut to a length that fits a log line.
std::string describeError(const Json& error);

} // namespace ovsdb
