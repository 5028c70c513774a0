// Walks along one line of a data file: words, texts in quotes, the rest.
#pragma once

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string>
#include <utility>

namespace golden
{

// Throws std::runtime_error for what is not in the notation.
class Scanner
{
public:
    explicit Scanner(const std::string& text) : m_text(text) {}

    void skipBlanks()
    {
        while (m_position < m_text.size() && m_text[m_position] == ' ')
            ++m_position;
    }

    bool atEnd()
    {
        skipBlanks();
        return m_position == m_text.size();
    }

    bool atArrow()
    {
        skipBlanks();
        return m_text.compare(m_position, 2, "->") == 0;
    }

    // What stands before the character, which is passed.
    std::string upTo(char character)
    {
        skipBlanks();
        const std::size_t end = m_text.find(character, m_position);
        if (end == std::string::npos)
            throw std::runtime_error("expected \"" + std::string(1, character) + "\" after \"" +
                                     m_text.substr(m_position) + "\"");
        const std::size_t begin = std::exchange(m_position, end + 1);
        return m_text.substr(begin, end - begin);
    }

    std::string nextWord() const { return Scanner(*this).word(); }

    // Up to the next blank or one of the characters in stop.
    std::string word(const char* stop = "")
    {
        skipBlanks();
        const std::size_t begin = m_position;
        m_position = std::min(m_text.find_first_of(std::string(" ") + stop, begin), m_text.size());
        return m_text.substr(begin, m_position - begin);
    }

    bool accept(char character)
    {
        if (m_position == m_text.size() || m_text[m_position] != character)
            return false;
        ++m_position;
        return true;
    }

    bool atQuote() const { return m_position < m_text.size() && m_text[m_position] == '"'; }

    // A text in double quotes with \" \\ \n \r \t and \xHH.
    std::string quoted()
    {
        ++m_position;
        std::string text;
        while (true) {
            if (m_position >= m_text.size())
                throw std::runtime_error("a quote that does not close");
            const char character = m_text[m_position++];
            if (character == '"')
                return text;
            text += character == '\\' ? escape() : character;
        }
    }

    // A quoted text, or the whole rest of the line as it is.
    std::string restOfLine()
    {
        skipBlanks();
        if (!atQuote())
            return m_text.substr(std::exchange(m_position, m_text.size()));
        std::string text = quoted();
        expectEnd();
        return text;
    }

    void expectEnd()
    {
        if (!atEnd())
            throw std::runtime_error("\"" + m_text.substr(m_position) + "\" where the line should end");
    }

private:
    char escape()
    {
        const char kind = m_position < m_text.size() ? m_text[m_position++] : '\0';
        switch (kind) {
        case '"':
        case '\\':
            return kind;
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'x': {
            unsigned value = 0;
            const char* begin = m_text.data() + m_position;
            const std::size_t left = std::min<std::size_t>(2, m_text.size() - m_position);
            if (std::from_chars(begin, begin + left, value, 16).ptr == begin + 2) {
                m_position += 2;
                return static_cast<char>(value);
            }
            break;
        }
        default:
            break;
        }
        throw std::runtime_error("an escape that is none of \\\" \\\\ \\n \\r \\t \\xHH");
    }

    const std::string& m_text;
    std::size_t m_position = 0;
};

} // namespace golden
