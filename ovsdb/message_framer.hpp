// Cuts the stream of bytes from a peer into messages. JSON-RPC has no length field: a message ends where its outermost
// bracket closes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ovsdb
{

// The whole configuration of 10,000 rules takes 3 to 4 MB; what is larger than this is no configuration of ours.
inline constexpr std::size_t maximumMessageSize = 16 * 1024 * 1024;
// A row's value stands 8 levels deep in a message.
inline constexpr std::size_t maximumMessageDepth = 32;

// Holds one unfinished message at most beyond what append was given last. Threading: none of its own.
class MessageFramer
{
public:
    // Takes bytes from the peer.
    void append(std::string_view bytes);

    // The next whole message, or nothing when more bytes are needed. Throws ProtocolError when what arrived cannot
    // become a message: it does not begin with '{', is too large or too deep.
    std::optional<std::string> next();

    // Whether a message has begun that is not complete.
    bool unfinished() const { return m_begin < m_buffer.size(); }

private:
    void skipBlanks();
    std::string cut(std::size_t end);

    std::string m_buffer;
    std::size_t m_begin = 0; // of the unfinished message
    std::size_t m_seen = 0;  // bytes before this one have been looked at
    std::size_t m_depth = 0;
    bool m_inText = false;
    bool m_escaped = false;
};

} // namespace ovsdb
