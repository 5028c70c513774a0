#include "moatctl/difference.hpp"
#include "moatctl/edit.hpp"
#include "moatctl/load.hpp"
#include "moatctl/progress.hpp"
#include "moatctl/values.hpp"
#include "moatctl/verbs.hpp"

#include <algorithm>
#include <memory>
#include <ostream>

namespace moatctl
{

namespace
{

struct Options {
    std::string file;
    bool replace = false;
    bool dryRun = false;
};

std::string counted(std::size_t count, const char* what)
{
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

class Import
{
public:
    Import(Program& program, const Options& options)
        : m_program(program), m_progress(program), m_replace(options.replace)
    {
        m_progress.say("reading " + nameOf(options.file));
        m_file = parseConfiguration(readText(program, options.file), nameOf(options.file));
    }

    // Turns the server's configuration into the wanted one, after showing how they differ.
    void apply(Editor& editor)
    {
        const Configuration before = editor.configuration;
        merge(editor.configuration);
        check(before, editor.configuration);
        show(difference(before, editor.configuration));
    }

private:
    void merge(Configuration& configuration) const
    {
        for (const TableInfo& table : allTables()) {
            if (m_replace)
                configuration.clear(table.id);
            for (const Row& row : m_file.configuration.rows(table.id)) {
                if (Row* present = configuration.find(table.id, row.id()))
                    *present = row;
                else
                    configuration.add(row);
            }
        }
    }

    // The rows of the file, as they stand in the result: a filter may be there already.
    void check(const Configuration& before, const Configuration& after)
    {
        std::vector<Problem> problems = m_file.problems;
        for (const TableInfo& table : allTables()) {
            const std::vector<Row>& rows = m_file.configuration.rows(table.id);
            if (!rows.empty())
                m_progress.say("checking " + counted(rows.size(), "row") + " of " + std::string(table.name()));
            for (const Row& row : rows) {
                const Row* present = before.find(table.id, row.id());
                for (Problem& problem : checkRow(after, row)) {
                    problem.file = m_file.configuration.file;
                    // What stands on the server already is no reason to refuse the rest.
                    if (present != nullptr && *present == row)
                        problem.severity = Severity::Warning;
                    problems.push_back(std::move(problem));
                }
            }
        }
        m_progress.clear();
        std::ranges::stable_sort(problems, {}, &Problem::line);
        const std::size_t errors = writeProblems(m_program.err, problems);
        if (errors != 0)
            throw Failure(ExitStatus::BadInput,
                          m_file.configuration.file + ": " + counted(errors, "error") + "; nothing was changed");
    }

    void show(const std::vector<Change>& changes)
    {
        std::size_t added = 0;
        std::size_t removed = 0;
        for (const Change& change : changes) {
            m_program.out << toText(change) << '\n';
            added += change.before == nullptr ? 1 : 0;
            removed += change.after == nullptr ? 1 : 0;
        }
        m_program.out.flush();
        m_program.err << counted(added, "row") << " to add, " << removed << " to remove, "
                      << changes.size() - added - removed << " to change\n";
        if (!changes.empty())
            m_progress.say("sending " + counted(changes.size(), "change"));
    }

    Program& m_program;
    Progress m_progress;
    bool m_replace;
    LoadedFile m_file;
};

ExitStatus import(Program& program, const Options& options)
{
    const auto work = std::make_shared<Import>(program, options);
    if (!options.dryRun)
        return applyEdit(program, [work](Editor& editor) { work->apply(editor); });
    ovsdb::Client client = program.connect();
    Editor editor(loadFromServer(client));
    work->apply(editor);
    return ExitStatus::Ok;
}

} // namespace

void addImport(CLI::App& root, Program& program)
{
    auto options = std::make_shared<Options>();
    CLI::App* app = addSubcommand(root, "import", "Take over tables from a JSON file, all of it or nothing",
                                  "import configuration.json --replace --dry-run");
    app->add_option("FILE", options->file, "As export writes it, with // and /* */ comments; - is standard input")
        ->required();
    CLI::Option* replace = app->add_flag("--replace", options->replace, "Remove every row that is not in the file");
    addFlag(*app, "--merge", "Leave the rows that are not in the file (so it is when nothing is said)")
        ->excludes(replace);
    app->add_flag("--dry-run", options->dryRun, "Check the file and show what would change, without doing it");
    app->callback([&program, options] { program.action = [&program, options] { return import(program, *options); }; });
}

} // namespace moatctl
