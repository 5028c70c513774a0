#include "moatctl/check/check.hpp"

#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"

#include <algorithm>
#include <memory>
#include <ostream>
#include <utility>

namespace moatctl
{

namespace
{

struct CheckArguments {
    std::string path;
    bool elsewhere = false;
    bool all = false;
    OutputStyle style;
};

Sheet sheetOf(const std::vector<Problem>& problems)
{
    Sheet sheet{"problems", "Problems", {"severity", "file", "line", "table", "id", "column", "text"}, {}};
    using tessera::Value;
    for (const Problem& problem : problems) {
        sheet.rows.push_back({Value(std::string(nameOf(problem.severity))), Value(problem.file),
                              Value(static_cast<std::int32_t>(problem.line)), Value(problem.table), Value(problem.id),
                              Value(problem.column), Value(problem.text)});
    }
    return sheet;
}

ExitStatus check(Program& program, const CheckArguments& options)
{
    LoadedFile loaded;
    if (options.path.empty()) {
        ovsdb::Client client = program.connect();
        loaded.configuration = loadFromServer(client);
    } else {
        loaded = parseConfiguration(readText(program.in, options.path), nameOf(options.path));
    }

    CheckOptions checkOptions;
    if (!options.elsewhere)
        checkOptions = checkHere(program);
    std::vector<Problem> problems = loaded.problems;
    std::vector<Problem> found;
    if (loaded.readable)
        found = checkConfiguration(loaded.configuration, checkOptions);
    for (Problem& problem : found) {
        // The reader of a file has told of some already.
        if (std::ranges::find(loaded.problems, problem) == loaded.problems.end())
            problems.push_back(std::move(problem));
    }
    std::ranges::stable_sort(problems, {}, &Problem::line);

    std::size_t acknowledged = 0;
    for (Problem& problem : problems) {
        if (isAcknowledged(loaded.configuration, problem)) {
            problem.severity = Severity::Acknowledged;
            ++acknowledged;
        }
    }
    if (!options.all)
        std::erase_if(problems, [](const Problem& problem) { return problem.severity == Severity::Acknowledged; });

    ExitStatus status = ExitStatus::Ok;
    for (const Problem& problem : problems) {
        if (problem.severity == Severity::Error)
            status = ExitStatus::BadInput;
        else if (status == ExitStatus::Ok && problem.severity == Severity::Warning)
            status = ExitStatus::Warnings;
    }
    if (options.style.format == Format::Table)
        writeProblems(program.out, problems);
    else
        writeSheets(program.out, {sheetOf(problems)}, options.style, program.terminal);
    if (acknowledged != 0 && !options.all)
        program.err << acknowledged << (acknowledged == 1 ? " acknowledged warning is" : " acknowledged warnings are")
                    << " not shown (--all shows them)\n";
    return status;
}

} // namespace

void addCheck(const Command& root, Program& program)
{
    auto options = std::make_shared<CheckArguments>();
    const Command command =
        root.add("check", "Find what is wrong with a configuration before it takes effect", "check rules.json");
    command.option("FILE", "",
                   "File to check, as export writes it; - for standard input (default: the server's configuration)",
                   options->path);
    command.flag("--elsewhere",
                 "The configuration is for another device: do not look for its interfaces on this machine",
                 options->elsewhere);
    command.flag("--all", "Also show warnings that are acknowledged", options->all);
    addOutputOptions(command, options->style);
    command.onGiven([&program, options] { program.action = [&program, options] { return check(program, *options); }; });
}

} // namespace moatctl
