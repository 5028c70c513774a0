// Cuts the stream of bytes from a peer into messages, and the rows of tables out of them while a message is still on
// its way. JSON-RPC has no length field: a message ends where its outermost bracket closes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ovsdb
{

// What is held of a message besides its rows, and of one row. A schema takes some 10 kB, a row some 500 bytes.
inline constexpr std::size_t maximumPieceSize = 16 * 1024 * 1024;
// A row's value stands 8 levels deep in a message.
inline constexpr std::size_t maximumMessageDepth = 32;

// A cut: a whole message, or one member of the object that holds a table's rows.
struct MessagePiece {
    bool isRow = false;
    std::string text;  // of the message (see below), or of the member: "name": value
    std::string table; // of a row: the text, quotes included, that stands in front of the object
};

// Holds no more than the rest of a message without its rows, one row, and what append was given last. Only looks for
// brackets, commas and quotes: the pieces may be anything but balanced JSON. Threading: none of its own.
class MessageFramer
{
public:
    // From the next message on, the members of every object that opens at this depth (the message itself has depth 1)
    // are cut out one by one, and in the text of the message {"":number of them} takes the place of the object, which
    // the peer cannot write there itself. 0, as at the start: messages stay whole.
    void splitRowsAt(std::size_t depth) { m_rowsDepth = depth; }

    // How large the rest of a message may become.
    void limitMessages(std::size_t bytes) { m_limit = bytes; }

    // Takes bytes from the peer.
    void append(std::string_view bytes);

    // The next piece, or nothing when more bytes are needed. Throws ProtocolError when what arrived cannot become a
    // message: it does not begin with '{', is too large or too deep.
    std::optional<MessagePiece> next();

    // Whether a message has begun that is not complete, or bytes wait that next has not looked at.
    bool unfinished() const { return m_depth > 0 || m_next < m_buffer.size(); }

private:
    std::optional<MessagePiece> take(char c);
    std::optional<MessagePiece> open(char c);
    std::optional<MessagePiece> close(char c);
    void put(std::string_view bytes);
    void beginRows();
    MessagePiece cutRow();

    std::string m_buffer;
    std::size_t m_next = 0; // in m_buffer
    std::size_t m_rowsDepth = 0;
    std::size_t m_limit = maximumPieceSize;

    std::size_t m_depth = 0;
    bool m_inText = false;
    bool m_escaped = false;
    std::string m_message;
    std::size_t m_lastText = 0; // where in m_message the last text began

    bool m_inRows = false;
    std::size_t m_rowCount = 0;
    std::string m_table;
    std::string m_row;
};

} // namespace ovsdb
