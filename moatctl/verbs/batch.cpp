#include "moatctl/command_line/split_line.hpp"

#include "moatctl/command_line/errors.hpp"

#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/load.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <memory>
#include <ostream>

namespace moatctl
{

namespace
{

struct Step {
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
        parse(readText(program, path));
    }

    void apply(Editor& editor)
    {
        m_mistakes = m_wrongLines;
        for (const Step& step : m_steps) {
            try {
                step.edit(editor);
            } catch (const Failure& failure) {
                m_mistakes.push_back({step.line, failure.status(), failure.what()});
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
        Program inner{.in = m_program.in, .out = m_program.out, .err = m_program.err, .action = {}, .edit = {}};
        CLI::App root("", "");
        describeCommandLine(root, inner, true);
        std::size_t number = 0;
        for (std::size_t begin = 0; begin < text.size(); ++number) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            parseLine(root, inner, std::string_view(text).substr(begin, end - begin), number + 1);
            begin = end + 1;
        }
    }

    void parseLine(CLI::App& root, Program& inner, std::string_view line, std::size_t number)
    {
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r'; };
        if (const auto control = std::ranges::find_if(line, isControl); control != line.end())
            throw Failure(ExitStatus::BadInput, m_name + ':' + std::to_string(number) + ": no text, found " +
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
            std::ranges::reverse(split.words);
            root.parse(split.words);
            if (inner.edit)
                m_steps.push_back({number, inner.edit});
            else
                m_wrongLines.push_back(
                    {number, ExitStatus::BadInput, "changes nothing: expected a verb that changes rows"});
        } catch (const CLI::Success&) {
            m_wrongLines.push_back({number, ExitStatus::BadInput, "--help has no place in a batch"});
        } catch (const CLI::ParseError& error) {
            m_wrongLines.push_back({number, ExitStatus::BadInput, describeError(error, root)});
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
    std::vector<Step> m_steps;
    std::vector<Mistake> m_wrongLines; // in themselves
    std::vector<Mistake> m_mistakes;   // these, and lines that do not fit the server's rows
};

} // namespace

void addBatch(CLI::App& root, Program& program)
{
    auto file = std::make_shared<std::string>("-");
    CLI::App* app = addSubcommand(root, "batch", "Make several changes at once: a verb a line, all of them or none",
                                  "batch changes.txt");
    app->add_option("FILE", *file, "Lines such as: rule add --in eth0 --drop # comment; - is standard input")
        ->capture_default_str();
    app->callback([&program, file] {
        program.action = [&program, file] {
            Batch batch(program, *file);
            try {
                return applyEdit(program, [&batch](Editor& editor) { batch.apply(editor); });
            } catch (const ovsdb::Error& error) {
                batch.stopAtWrongLines(error);
                throw;
            }
        };
    });
}

} // namespace moatctl
