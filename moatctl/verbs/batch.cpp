#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/parser.hpp"
#include "moatctl/command_line/split_line.hpp"

#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/file_edit.hpp"

#include <algorithm>
#include <memory>
#include <ostream>
#include <utility>

namespace moatctl
{

namespace
{

struct Instruction {
    std::size_t line;
    std::function<void(Editor&)> edit;
};

struct Mistake {
    std::size_t line;
    ExitStatus status;
    std::string text;
};

class Batch
{
public:
    Batch(Program& program, const std::string& path) : m_program(program), m_name(nameOf(path))
    {
        parse(readText(program.in, path));
    }

    void apply(Editor& editor)
    {
        m_mistakes = m_wrongLines;
        for (const Instruction& instruction : m_instructions) {
            try {
                instruction.edit(editor);
            } catch (const Failure& failure) {
                m_mistakes.push_back({instruction.line, failure.status(), failure.what()});
            }
        }
        stopAtMistakes();
    }

    // When the server could not be read: what is wrong with the lines whatever it holds. Throws Failure when there is
    // something.
    void stopAtWrongLines(const ovsdb::Error& error)
    {
        m_mistakes = m_wrongLines;
        stopAtMistakes(std::string(" (and ") + error.what() + ')');
    }

private:
    void parse(const std::string& text)
    {
        // The same verbs as on the command line, but only those that change rows.
        Program inner{.in = m_program.in, .out = m_program.out, .err = m_program.err, .verbs = m_program.verbs};
        inner.force = m_program.force;
        Parser parser(inner, Parser::OnlyChanges{});
        std::size_t number = 0;
        for (std::size_t begin = 0; begin < text.size(); ++number) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            parseLine(parser, inner, std::string_view(text).substr(begin, end - begin), number + 1);
            begin = end + 1;
        }
    }

    void parseLine(Parser& parser, Program& inner, std::string_view line, std::size_t number)
    {
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r'; };
        if (const auto control = std::ranges::find_if(line, isControl); control != line.end())
            throw Failure(ExitStatus::BadInput, m_name + ':' + std::to_string(number) + ": not a text: found " +
                                                    inQuotes(std::string_view(&*control, 1)) + "; nothing was changed");
        SplitLine split = splitLine(line);
        if (!split.error.empty()) {
            m_wrongLines.push_back({number, ExitStatus::BadInput, split.error});
            return;
        }
        if (split.words.empty())
            return;
        inner.edit = {};
        try {
            if (!parser.parse(std::move(split.words)).empty())
                m_wrongLines.push_back({number, ExitStatus::BadInput, "--help cannot be used in a batch"});
            else if (std::exchange(inner.force, m_program.force) != m_program.force)
                m_wrongLines.push_back(
                    {number, ExitStatus::BadInput, "--force is for all lines together: expected it after batch"});
            else if (inner.edit)
                m_instructions.push_back({number, inner.edit});
            else
                m_wrongLines.push_back(
                    {number, ExitStatus::BadInput, "changes nothing: expected a verb that changes rows"});
        } catch (const Failure& failure) {
            m_wrongLines.push_back({number, failure.status(), failure.what()});
        }
    }

    void stopAtMistakes(const std::string& more = {})
    {
        if (m_mistakes.empty())
            return;
        std::ranges::stable_sort(m_mistakes, {}, &Mistake::line);
        for (const Mistake& mistake : m_mistakes)
            m_program.err << m_name << ':' << mistake.line << ": error: " << mistake.text << '\n';
        throw Failure(m_mistakes.front().status, m_name + ": " + std::to_string(m_mistakes.size()) +
                                                     (m_mistakes.size() == 1 ? " line is" : " lines are") +
                                                     " wrong; nothing was changed" + more);
    }

    Program& m_program;
    std::string m_name;
    std::vector<Instruction> m_instructions;
    std::vector<Mistake> m_wrongLines; // in themselves
    std::vector<Mistake> m_mistakes;   // these, and lines that do not fit the server's rows
};

} // namespace

std::function<void(Editor&)> batchEdit(Program& program, const std::string& file)
{
    return [batch = std::make_shared<Batch>(program, file)](Editor& editor) { batch->apply(editor); };
}

void addBatch(const Command& root, Program& program)
{
    auto file = std::make_shared<std::string>("-");
    const Command command =
        root.add("batch", "Make several changes at once, one verb a line: all of them or none", "batch changes.txt");
    command
        .option("FILE", "", "File with lines such as: rule add --in eth0 --drop # comment; - for standard input", *file)
        .defaultsTo("-");
    addChangeOptions(command, program);
    command.onGiven([&program, file] {
        program.action = [&program, file] {
            Batch batch(program, *file);
            try {
                return carryOut(program, checked(program, [&batch](Editor& editor) { batch.apply(editor); }));
            } catch (const ovsdb::Error& error) {
                batch.stopAtWrongLines(error);
                throw;
            }
        };
    });
}

} // namespace moatctl
