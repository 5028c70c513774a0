#include "ovsdb/message_framer.hpp"

#include "ovsdb/error.hpp"

#include <utility>

namespace ovsdb
{

namespace
{

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Quicker than a search for one of several, and every byte of a server's answer is looked at.
bool endsText(char c)
{
    return c == '"' || c == '\\';
}
bool isStructure(char c)
{
    return c == '"' || c == ',' || c == '{' || c == '}' || c == '[' || c == ']';
}

} // namespace

void MessageFramer::append(std::string_view bytes)
{
    m_buffer.erase(0, std::exchange(m_next, 0));
    m_buffer.append(bytes);
}

std::optional<MessagePiece> MessageFramer::next()
{
    while (m_next < m_buffer.size()) {
        if (m_depth > 0 && !m_escaped) { // what means nothing here is taken at once
            std::size_t end = m_next;
            while (end < m_buffer.size() && !(m_inText ? endsText(m_buffer[end]) : isStructure(m_buffer[end])))
                ++end;
            put(std::string_view(m_buffer).substr(m_next, end - m_next));
            m_next = end;
            if (end == m_buffer.size())
                return std::nullopt;
        }
        if (auto piece = take(m_buffer[m_next++]))
            return piece;
    }
    return std::nullopt;
}

std::optional<MessagePiece> MessageFramer::take(char c)
{
    if (m_depth == 0) {
        if (isBlank(c))
            return std::nullopt;
        if (c != '{')
            throw ProtocolError("bytes that begin no message: expected '{', found byte " +
                                std::to_string(static_cast<unsigned char>(c)));
        m_lastText = 0;
    }
    if (m_inText) {
        put({&c, 1});
        if (m_escaped)
            m_escaped = false;
        else if (c == '\\')
            m_escaped = true;
        else if (c == '"')
            m_inText = false;
        return std::nullopt;
    }
    switch (c) {
    case '{':
    case '[':
        return open(c);
    case '}':
    case ']':
        return close(c);
    case ',':
        if (m_inRows && m_depth == m_rowsDepth)
            return cutRow();
        break;
    case '"':
        m_inText = true;
        if (!m_inRows)
            m_lastText = m_message.size();
        break;
    default:
        break;
    }
    put({&c, 1});
    return std::nullopt;
}

std::optional<MessagePiece> MessageFramer::open(char c)
{
    if (++m_depth > maximumMessageDepth)
        throw ProtocolError("message deeper than " + std::to_string(maximumMessageDepth) + " levels");
    if (c == '{' && m_depth == m_rowsDepth && !m_inRows)
        beginRows();
    else
        put({&c, 1});
    return std::nullopt;
}

std::optional<MessagePiece> MessageFramer::close(char c)
{
    const bool endOfRows = m_inRows && m_depth == m_rowsDepth;
    --m_depth;
    if (endOfRows) {
        if (c != '}')
            throw ProtocolError("message is no JSON: rows end with ']'");
        std::optional<MessagePiece> last;
        if (m_rowCount > 0 || m_row.find_first_not_of(" \t\r\n") != std::string::npos)
            last = cutRow();
        m_inRows = false;
        m_row.clear();
        m_message += "{\"\":" + std::to_string(m_rowCount) + '}';
        return last;
    }
    put({&c, 1});
    if (m_depth > 0)
        return std::nullopt;
    return MessagePiece{.isRow = false, .text = std::exchange(m_message, {}), .table = {}};
}

void MessageFramer::put(std::string_view bytes)
{
    std::string& text = m_inRows ? m_row : m_message;
    const std::size_t limit = m_inRows ? maximumPieceSize : m_limit;
    if (text.size() + bytes.size() > limit)
        throw ProtocolError((m_inRows ? "row larger than " : "message larger than ") + std::to_string(limit) +
                            " bytes");
    text += bytes;
}

void MessageFramer::beginRows()
{
    m_inRows = true;
    m_rowCount = 0;
    // What stands behind the text, a colon and blanks if this is a member, is for the parser of the message.
    const std::size_t end = m_message.rfind('"');
    m_table = end != std::string::npos && end > m_lastText ? m_message.substr(m_lastText, end + 1 - m_lastText) : "";
}

MessagePiece MessageFramer::cutRow()
{
    ++m_rowCount;
    return {.isRow = true, .text = std::exchange(m_row, {}), .table = m_table};
}

} // namespace ovsdb
