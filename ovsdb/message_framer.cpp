#include "ovsdb/message_framer.hpp"

#include "ovsdb/error.hpp"

namespace ovsdb
{

namespace
{

constexpr std::size_t keptCapacity = 64 * 1024;

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

} // namespace

void MessageFramer::append(std::string_view bytes)
{
    if (m_begin > 0 && m_seen == m_begin) { // forget what has been cut off
        m_buffer.erase(0, m_begin);
        m_begin = m_seen = 0;
    }
    m_buffer.append(bytes);
}

void MessageFramer::skipBlanks()
{
    while (m_begin < m_buffer.size() && isBlank(m_buffer[m_begin]))
        ++m_begin;
    m_seen = m_begin;
}

std::optional<std::string> MessageFramer::next()
{
    if (m_depth == 0) {
        skipBlanks();
        if (m_begin == m_buffer.size()) {
            m_buffer.clear();
            if (m_buffer.capacity() > keptCapacity)
                m_buffer.shrink_to_fit();
            m_begin = m_seen = 0;
            return std::nullopt;
        }
        if (m_buffer[m_begin] != '{')
            throw ProtocolError("bytes that begin no message: expected '{', found byte " +
                                std::to_string(static_cast<unsigned char>(m_buffer[m_begin])));
    }
    for (; m_seen < m_buffer.size(); ++m_seen) {
        const char c = m_buffer[m_seen];
        if (m_seen - m_begin >= maximumMessageSize)
            throw ProtocolError("message larger than " + std::to_string(maximumMessageSize) + " bytes");
        if (m_inText) {
            if (m_escaped)
                m_escaped = false;
            else if (c == '\\')
                m_escaped = true;
            else if (c == '"')
                m_inText = false;
        } else if (c == '"') {
            m_inText = true;
        } else if (c == '{' || c == '[') {
            if (++m_depth > maximumMessageDepth)
                throw ProtocolError("message deeper than " + std::to_string(maximumMessageDepth) + " levels");
        } else if ((c == '}' || c == ']') && --m_depth == 0) {
            return cut(m_seen + 1);
        }
    }
    return std::nullopt;
}

std::string MessageFramer::cut(std::size_t end)
{
    std::string message;
    if (m_begin == 0 && end == m_buffer.size()) { // the usual case: no copy of a large message
        message = std::move(m_buffer);
        m_buffer = {};
        m_begin = m_seen = 0;
        return message;
    }
    message = m_buffer.substr(m_begin, end - m_begin);
    m_begin = m_seen = end;
    return message;
}

} // namespace ovsdb
