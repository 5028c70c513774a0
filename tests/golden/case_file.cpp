#include "tests/golden/case_file.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

namespace golden
{

namespace
{

// The fixed lines that every first commit and every stop after a commit record, so that files need not repeat them.
const std::vector<std::string> initLines = {
    "add ebtables -N UserInputRules",
    "add ebtables -N UserInputPolicy",
    "add ebtables -N UserForwardRules",
    "add ebtables -N UserForwardPolicy",
    "add ebtables -P UserInputRules RETURN",
    "add ebtables -P UserInputPolicy RETURN",
    "add ebtables -P UserForwardRules RETURN",
    "add ebtables -P UserForwardPolicy RETURN",
    "add ebtables -A INPUT -j UserInputRules",
    "add ebtables -A INPUT -j UserInputPolicy",
    "add ebtables -A FORWARD -j UserForwardRules",
    "add ebtables -A FORWARD -j UserForwardPolicy",
    "process",
};
const std::vector<std::string> cleanUpLines = {
    "add ebtables -D INPUT -j UserInputRules",
    "add ebtables -D INPUT -j UserInputPolicy",
    "add ebtables -D FORWARD -j UserForwardRules",
    "add ebtables -D FORWARD -j UserForwardPolicy",
    "add ebtables -X UserInputRules",
    "add ebtables -X UserInputPolicy",
    "add ebtables -X UserForwardRules",
    "add ebtables -X UserForwardPolicy",
    "add ebtables -P FORWARD ACCEPT",
    "add ebtables -P INPUT ACCEPT",
    "process",
};

using Columns = std::vector<std::pair<std::string, std::optional<tessera::Value>>>;

// Walks along one line.
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

// A bare number is an integer; everything else, and whatever stands in quotes, is a text.
tessera::Value toValue(const std::string& word)
{
    if (word.find_first_not_of("0123456789", word.starts_with('-') ? 1 : 0) != std::string::npos || word.empty() ||
        word == "-")
        return tessera::Value(word);
    std::int32_t integer = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), integer);
    if (error != std::errc() || end != word.data() + word.size())
        throw std::runtime_error("\"" + word + "\" is no 32-bit integer (a text of digits stands in quotes)");
    return tessera::Value(integer);
}

// "Column=value ...", "!Column" for a column that the row lacks, "-" for nothing.
Columns toColumns(Scanner& scanner)
{
    Columns columns;
    while (!scanner.atEnd()) {
        if (scanner.accept('-')) {
            scanner.expectEnd();
        } else if (scanner.accept('!')) {
            columns.emplace_back(scanner.word(), std::nullopt);
        } else {
            std::string name = scanner.word("=");
            if (!scanner.accept('='))
                throw std::runtime_error("\"" + name + "\": expected Column=value");
            columns.emplace_back(std::move(name),
                                 scanner.atQuote() ? tessera::Value(scanner.quoted()) : toValue(scanner.word()));
        }
    }
    return columns;
}

fake::Row toRow(const Columns& defaults, const Columns& given)
{
    std::map<std::string, bool> missing;
    for (const auto& [name, value] : given)
        missing[name] = !value.has_value();
    fake::Row row;
    for (const Columns* columns : {&defaults, &given}) {
        for (const auto& [name, value] : *columns) {
            if (value.has_value() && !missing[name])
                row.set(name, *value);
        }
    }
    return row;
}

void addExpected(std::vector<std::string>& expected, Scanner& scanner)
{
    const std::string kind = scanner.word();
    if (kind == "init") {
        expected.insert(expected.end(), initLines.begin(), initLines.end());
    } else if (kind == "cleanup") {
        expected.insert(expected.end(), cleanUpLines.begin(), cleanUpLines.end());
    } else if (kind == "process") {
        expected.push_back("process");
    } else if (kind == "add" || kind == "apply") {
        expected.push_back("add " + render(scanner.restOfLine()));
        if (kind == "apply")
            expected.push_back("process");
    } else if (kind == "trace" || kind == "info" || kind == "warning" || kind == "error") {
        std::string place = scanner.word();
        expected.push_back(kind + " " + place + " " + render(scanner.restOfLine()));
    } else {
        throw std::runtime_error("\"" + kind +
                                 "\": expected add, process, apply, init, cleanup, trace, info, warning or error");
    }
    scanner.expectEnd();
}

bool toFlag(const std::string& word, const char* yes, const char* no)
{
    if (word != yes && word != no)
        throw std::runtime_error("\"" + word + "\": expected " + yes + " or " + no);
    return word == yes;
}

Step toStep(const std::string& verb, Scanner& scanner)
{
    Step step;
    if (verb == "rows" || verb == "no-table") {
        step.action = verb == "rows" ? Action::rows : Action::noTable;
        step.table = scanner.word();
    } else if (verb == "load") {
        step.action = Action::load;
        scanner.skipBlanks();
        step.table = scanner.atQuote() ? scanner.quoted() : scanner.word();
        if (scanner.word() != "->")
            throw std::runtime_error("expected: load TABLE -> true|false");
        step.flag = toFlag(scanner.word(), "true", "false");
    } else if (verb == "debug" || verb == "debug-call") {
        step.action = verb == "debug" ? Action::debug : Action::debugCall;
        step.flag = toFlag(scanner.word(), "on", "off");
    } else {
        const std::map<std::string, Action> plain = {
            {"commit", Action::commit}, {"ready", Action::ready}, {"stop", Action::stop}, {"trace", Action::trace}};
        const auto found = plain.find(verb);
        if (found == plain.end())
            throw std::runtime_error("\"" + verb + "\": no such step");
        step.action = found->second;
    }
    scanner.expectEnd();
    return step;
}

class FileReader
{
public:
    void readLine(const std::string& line, int lineNumber)
    {
        Scanner scanner(line);
        if (scanner.atEnd() || line.find_first_not_of(' ') == line.find('#'))
            return;
        if (line.back() == ' ')
            throw std::runtime_error("a blank at the end of the line (put the text in quotes)");
        if (line.front() == ' ')
            readIndented(scanner);
        else
            readVerb(scanner, lineNumber);
    }

    std::vector<Case> takeCases() { return std::move(m_cases); }

private:
    void readVerb(Scanner& scanner, int lineNumber)
    {
        const std::string verb = scanner.word();
        if (verb == "case") {
            m_cases.push_back({scanner.restOfLine(), lineNumber, {}});
        } else if (verb == "default") {
            const std::string table = scanner.word();
            m_defaults[table] = toColumns(scanner);
        } else {
            if (m_cases.empty())
                throw std::runtime_error("\"" + verb + "\" before the first case");
            m_cases.back().steps.push_back(toStep(verb, scanner));
            m_cases.back().steps.back().lineNumber = lineNumber;
        }
    }

    void readIndented(Scanner& scanner)
    {
        if (m_cases.empty() || m_cases.back().steps.empty())
            throw std::runtime_error("an indented line that belongs to no step");
        Step& step = m_cases.back().steps.back();
        if (step.action == Action::rows)
            step.rows.push_back(toRow(m_defaults[step.table], toColumns(scanner)));
        else if (step.action == Action::ready)
            throw std::runtime_error("\"ready\" compares nothing; use load and commit");
        else
            addExpected(step.expected, scanner);
    }

    std::vector<Case> m_cases;
    std::map<std::string, Columns> m_defaults;
};

} // namespace

std::vector<Case> readCases(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": cannot be read");
    FileReader reader;
    int lineNumber = 0;
    for (std::string line; std::getline(file, line);) {
        ++lineNumber;
        try {
            reader.readLine(line, lineNumber);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(path + ":" + std::to_string(lineNumber) + ": " + error.what());
        }
    }
    return reader.takeCases();
}

std::string render(const std::string& text)
{
    const bool plain = !text.empty() && text.front() != '"' && text.front() != ' ' && text.back() != ' ' &&
                       std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (plain)
        return text;
    static const char digits[] = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\')
            (quoted += '\\') += character;
        else if (character >= ' ' && character <= '~')
            quoted += character;
        else
            ((quoted += "\\x") += digits[byte >> 4]) += digits[byte & 15];
    }
    return quoted + "\"";
}

} // namespace golden
