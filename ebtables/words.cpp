#include "ebtables/words.hpp"

#include "text/one_line.hpp"

#include <array>
#include <utility>

namespace ebtables
{

namespace
{

// Thrown inside this file only.
struct Refuse {
    LineError error;
};

[[noreturn]] void refuse(std::string_view word, std::string expected)
{
    throw Refuse{{text::oneLine(word), "", std::move(expected)}};
}

constexpr const char* shellExpected = "plain words: nothing here goes through a shell";

// What a character does outside quotes. Most lines are all Plain, Blank and one pair of Quotes, and there are
// thousands of them: one look-up a character, whole runs at a time.
enum class Kind : unsigned char { Plain, Blank, Quote, Separator, Shell, ShellInQuotes, Unprintable };

constexpr std::array<Kind, 256> kinds = [] {
    std::array<Kind, 256> result{};
    result.fill(Kind::Unprintable);
    for (unsigned char c = ' '; c <= '~'; ++c)
        result[c] = Kind::Plain;
    for (const char c : std::string_view("|&<>(){}'*?[]~#^"))
        result[static_cast<unsigned char>(c)] = Kind::Shell;
    for (const char c : std::string_view("$`\\")) // a shell expands these in double quotes as well
        result[static_cast<unsigned char>(c)] = Kind::ShellInQuotes;
    result[' '] = Kind::Blank;
    result['"'] = Kind::Quote;
    result[';'] = Kind::Separator;
    return result;
}();

Kind kindOf(char c)
{
    return kinds[static_cast<unsigned char>(c)];
}

class Splitter
{
public:
    explicit Splitter(std::string_view line) : m_line(line)
    {
        if (line.size() > maxLine)
            refuse(line.substr(0, 40), "a line of at most " + std::to_string(maxLine) + " bytes");
    }

    SplitLine split()
    {
        beginCommand();
        while (m_at < m_line.size()) {
            if (belongsToWord(m_line[m_at]))
                takeRun();
            else
                takeSpecial(m_line[m_at]);
        }
        if (m_inQuotes)
            refuse(m_word->text, "a closing double quote");
        endWord();
        return std::move(m_result);
    }

private:
    void beginCommand() { m_result.commands.emplace_back().reserve(usualWords); }

    void endWord()
    {
        if (m_word)
            m_result.commands.back().push_back(*m_word);
        m_word.reset();
    }

    bool belongsToWord(char c) const
    {
        const Kind kind = kindOf(c);
        return kind == Kind::Plain ||
               (m_inQuotes && (kind == Kind::Blank || kind == Kind::Separator || kind == Kind::Shell));
    }

    // The characters up to the next special one belong to the word.
    void takeRun()
    {
        const std::size_t begin = m_at;
        while (m_at < m_line.size() && belongsToWord(m_line[m_at]))
            ++m_at;
        const std::string_view run = m_line.substr(begin, m_at - begin);
        if (!m_word)
            m_word.emplace();
        m_word->text = m_word->text.empty() ? run : join(m_word->text, run);
    }

    std::string_view join(std::string_view left, std::string_view right)
    {
        std::string& joined = m_result.joined.emplace_front(left);
        return joined += right;
    }

    void takeSpecial(char c)
    {
        switch (kindOf(c)) {
        case Kind::Unprintable:
            refuse(context(), "printable ASCII characters only");
        case Kind::Shell:
        case Kind::ShellInQuotes:
            refuse(context(), shellExpected);
        case Kind::Quote:
            if (!m_word)
                m_word.emplace();
            m_word->quoted = true;
            m_inQuotes = !m_inQuotes;
            break;
        case Kind::Separator:
            endWord();
            beginCommand();
            break;
        case Kind::Blank:
        case Kind::Plain:
            endWord();
            break;
        }
        ++m_at;
    }

    std::string context() const { return std::string(m_word ? m_word->text : "").append(m_line.substr(m_at, 20)); }

    static constexpr std::size_t usualWords = 24;

    std::string_view m_line;
    std::size_t m_at = 0;
    bool m_inQuotes = false;
    std::optional<Word> m_word; // the one that is being read
    SplitLine m_result;
};

} // namespace

SplitLine splitLine(std::string_view line)
{
    try {
        return Splitter(line).split();
    } catch (Refuse& refusal) {
        SplitLine result;
        result.error = std::move(refusal.error);
        return result;
    }
}

} // namespace ebtables
