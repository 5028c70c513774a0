#include "tests/golden/case_file.hpp"

#include "tests/golden/scanner.hpp"

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

// What a group's commit records before the line of its only row, by table.
const std::map<std::string, std::vector<std::string>> flushLines = {
    {"MoatKeeperRuleset", {"add ebtables -F UserInputRules", "add ebtables -F UserForwardRules", "process"}},
    {"MoatKeeperInputPolicy", {"add ebtables -F UserInputPolicy", "process"}},
    {"MoatKeeperForwardingPolicy", {"add ebtables -F UserForwardPolicy", "process"}},
};

using Columns = std::vector<std::pair<std::string, std::optional<tessera::Value>>>;

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
    while (!scanner.atEnd() && !scanner.atArrow()) {
        if (scanner.accept('-')) {
            if (!columns.empty() || !(scanner.atEnd() || scanner.atArrow()))
                throw std::runtime_error("\"-\" stands alone: a row of nothing but the defaults");
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

bool isLevel(const std::string& kind)
{
    return kind == "trace" || kind == "info" || kind == "warning" || kind == "error";
}

void addLogLine(std::vector<std::string>& expected, const std::string& level, Scanner& scanner)
{
    const std::string place = scanner.word();
    expected.push_back(level + " " + place + " " + render(scanner.restOfLine()));
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
    } else if (isLevel(kind)) {
        addLogLine(expected, kind, scanner);
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
            scanner.expectEnd();
        } else if (verb == "table") {
            m_table = scanner.word();
            scanner.expectEnd();
        } else if (verb == "row") {
            readRow(scanner, lineNumber);
        } else {
            if (m_cases.empty())
                throw std::runtime_error("\"" + verb + "\" before the first case");
            m_cases.back().steps.push_back(toStep(verb, scanner));
            m_cases.back().steps.back().lineNumber = lineNumber;
        }
    }

    // A case on one line: a row alone in its table, and its line or the message why it has none.
    void readRow(Scanner& scanner, int lineNumber)
    {
        const auto flush = flushLines.find(m_table);
        if (flush == flushLines.end())
            throw std::runtime_error("\"row\" needs a \"table\" before it: a policy table or that of the rules");
        std::string name = scanner.upTo(':');
        Step rows{Action::rows, lineNumber, m_table, {toRow(m_defaults[m_table], toColumns(scanner))}, false, {}};
        if (scanner.word() != "->")
            throw std::runtime_error("expected: row NAME: Column=value ... -> the line or the message");
        Step load{Action::load, lineNumber, m_table, {}, true, {}};
        std::string line;
        if (isLevel(scanner.nextWord()))
            addLogLine(load.expected, scanner.word(), scanner);
        else
            line = scanner.restOfLine();
        Step commit{Action::commit, lineNumber, "", {}, false, flush->second};
        commit.expected.insert(commit.expected.end(), {"add " + render(line), "process"});
        const Step ready{Action::ready, lineNumber, "", {}, false, {}};
        m_cases.push_back({std::move(name), lineNumber, {ready, std::move(rows), std::move(load), std::move(commit)}});
    }

    void readIndented(Scanner& scanner)
    {
        if (m_cases.empty() || m_cases.back().steps.empty())
            throw std::runtime_error("an indented line that belongs to no step");
        Step& step = m_cases.back().steps.back();
        if (step.action == Action::rows) {
            step.rows.push_back(toRow(m_defaults[step.table], toColumns(scanner)));
            scanner.expectEnd();
        } else if (step.action == Action::ready) {
            throw std::runtime_error("\"ready\" compares nothing; use load and commit");
        } else {
            addExpected(step.expected, scanner);
        }
    }

    std::vector<Case> m_cases;
    std::map<std::string, Columns> m_defaults;
    std::string m_table; // of the cases on one line
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
