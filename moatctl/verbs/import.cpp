#include "moatctl/check/change.hpp"
#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/guard_rail.hpp"
#include "moatctl/command_line/progress.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/file_edit.hpp"

#include <algorithm>
#include <iterator>
#include <memory>
#include <ostream>

namespace moatctl
{

namespace
{

struct ImportArguments {
    std::string file;
    bool replace = false;
    bool dryRun = false;
    bool elsewhere = false;
};

std::string counted(std::size_t count, const char* what)
{
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

class Import
{
public:
    Import(Program& program, const ImportArguments& options)
        : m_program(program), m_progress(program), m_replace(options.replace)
    {
        m_file = parseConfiguration(readText(program.in, options.file), nameOf(options.file));
        if (!m_file.readable)
            refuse(m_file.problems);
        if (!options.elsewhere)
            m_checkOptions = checkHere(program);
        m_checkOptions.onProgress = [this](std::size_t done, std::size_t total) {
            m_progress.show("checking", done, total);
        };
        program.server.onProgress = [this](std::size_t sent, std::size_t all) {
            if (m_sending.empty())
                m_progress.show("reading the server's configuration");
            else if (sent < all)
                m_progress.show("sending " + m_sending, sent, all);
            else
                m_progress.show("waiting until the server has stored " + m_sending);
        };
    }

    // Turns the server's configuration into the wanted one, after showing how they differ.
    void apply(Editor& editor)
    {
        m_metServer = true;
        m_sending.clear();
        merge(editor.configuration);
        check(editor.before, editor.configuration);
        editor.flawless = m_flawless;
        show(difference(editor.before, editor.configuration));
        showAcknowledged(editor.before, editor.configuration, '-');
        showAcknowledged(editor.configuration, editor.before, '+');
    }

    // Likewise, without a word.
    void applyUnseen(Editor& editor) const { merge(editor.configuration); }

    // Throws Failure when the file has errors in itself.
    void requireReadable()
    {
        if (std::ranges::any_of(m_file.problems, isError))
            refuse(m_file.problems);
        writeSorted(m_file.problems);
    }

    // When the server could not be read: what is wrong with the file whatever the server holds. Throws Failure when
    // there is something.
    void checkWithoutServer(const ovsdb::Error& error)
    {
        if (m_metServer)
            return;
        std::vector<Problem> problems = m_file.problems;
        std::ranges::copy_if(
            checkChange({}, m_file.configuration), std::back_inserter(problems), [&](const Problem& problem) {
                // The server may have the filter.
                return problem.severity == Severity::Error && (m_replace || problem.column != "BridgeFilterID");
            });
        if (!problems.empty())
            refuse(std::move(problems), std::string(" (and ") + error.what() + ')');
    }

private:
    void merge(Configuration& configuration) const
    {
        configuration.file = m_file.configuration.file;
        if (m_replace)
            configuration.acknowledged = m_file.configuration.acknowledged;
        else
            configuration.acknowledged.insert(m_file.configuration.acknowledged.begin(),
                                              m_file.configuration.acknowledged.end());
        for (const schema::Table& table : schema::allTables()) {
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

    void check(const Configuration& before, const Configuration& after)
    {
        std::vector<Problem> problems = m_file.problems;
        std::ranges::move(checkChange(before, after, m_checkOptions), std::back_inserter(problems));
        m_flawless = problems.empty();
        // A file that could not be read as a whole is not stored in part.
        const bool unread = std::ranges::any_of(m_file.problems, isError);
        if (std::ranges::any_of(problems, isError) && (unread || !m_program.force))
            refuse(std::move(problems));
        writeSorted(std::move(problems));
    }

    static bool isError(const Problem& problem) { return problem.severity == Severity::Error; }

    void writeSorted(std::vector<Problem> problems)
    {
        m_progress.clear();
        std::ranges::stable_sort(problems, {}, &Problem::line);
        writeProblems(m_program.err, problems);
    }

    [[noreturn]] void refuse(std::vector<Problem> problems, const std::string& more = {})
    {
        const auto errors = static_cast<std::size_t>(std::ranges::count_if(problems, isError));
        writeSorted(std::move(problems));
        throw Failure(ExitStatus::BadInput,
                      m_file.configuration.file + ": " + counted(errors, "error") + "; nothing was changed" + more);
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
        m_sending = counted(changes.size(), "change");
    }

    // Those that the one has and the other has not.
    void showAcknowledged(const Configuration& one, const Configuration& other, char sign)
    {
        for (const auto& [acknowledged, uuid] : one.acknowledged) {
            if (!other.acknowledged.contains(acknowledged))
                m_program.out << sign << " acknowledged: " << toText(acknowledged) << '\n';
        }
        m_program.out.flush();
    }

    Program& m_program;
    Progress m_progress;
    bool m_replace;
    CheckOptions m_checkOptions;
    LoadedFile m_file;
    bool m_metServer = false;
    bool m_flawless = false;
    std::string m_sending; // what is being sent, in words; empty before
};

ExitStatus import(Program& program, const ImportArguments& options)
{
    Import work(program, options);
    try {
        if (!options.dryRun)
            return carryOut(program, [&work](Editor& editor) { work.apply(editor); });
        ovsdb::Client client = program.connect();
        const Configuration before = loadFromServer(client);
        Editor editor(before);
        work.apply(editor);
        GuardRail(program).look(editor);
        for (const std::string& line : editor.told().notes)
            program.err << line << '\n';
    } catch (const ovsdb::Error& error) {
        work.checkWithoutServer(error);
        throw;
    }
    return ExitStatus::Ok;
}

} // namespace

std::function<void(Editor&)> importEdit(Program& program, const std::string& file, bool replace)
{
    const auto work =
        std::make_shared<Import>(program, ImportArguments{.file = file, .replace = replace, .elsewhere = true});
    program.server.onProgress = {};
    work->requireReadable();
    return [work](Editor& editor) { work->applyUnseen(editor); };
}

void addImport(const Command& root, Program& program)
{
    auto options = std::make_shared<ImportArguments>();
    const Command command = root.add("import", "Import tables from a JSON file, completely or not at all",
                                     "import configuration.json --replace --dry-run");
    command
        .option("FILE", "", "File as export writes it, may contain // and /* */ comments; - for standard input",
                options->file)
        .required();
    const Option replace = command.flag("--replace", "Remove rows that are not in the file", options->replace);
    command.flag("--merge", "Keep rows that are not in the file (default)").excludes(replace);
    command.flag("--elsewhere",
                 "The configuration is for another device: do not look for its interfaces on this machine",
                 options->elsewhere);
    command.flag("--dry-run", "Only check the file and show what would change", options->dryRun);
    addChangeOptions(command, program);
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return import(program, *options); }; });
}

} // namespace moatctl
