#include "moatctl/command_line/errors.hpp"
#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/problem.hpp"

#include <cmath>
#include <ostream>
#include <sstream>

namespace moatctl
{

namespace
{

constexpr double longestTimeout = 3600;

constexpr const char* closingText = R"(Exit status:
  0  done; check found nothing
  1  check found warnings; status found something amiss
  2  the command line, a file or a configuration has errors; nothing was changed
  3  the server cannot be reached, does not answer in time or has another schema
  4  a row is missing, is there already, is in use, or others kept changing it
  5  the output could not be written

Example:
  moatctl rule add --in eth0 --out eth1 --src-mac 00:11:22:33:44:55 --drop)";

ExitStatus carryOut(Program& program)
{
    const ExitStatus status = program.edit ? applyEdit(program, program.edit) : program.action();
    program.out.flush();
    if (!program.out)
        throw Failure(ExitStatus::Output, "the output could not be written");
    return status;
}

} // namespace

CLI::App* addSubcommand(CLI::App& parent, const std::string& name, const std::string& description,
                        const std::string& example)
{
    CLI::App* app = parent.add_subcommand(name, description);
    app->footer("Example:\n  moatctl " + example);
    return app;
}

CLI::Option* addValueOption(CLI::App& app, const std::string& name, const std::string& type, const std::string& help)
{
    return app.add_option(name, help)->type_name(type)->expected(1);
}

CLI::Option* addFlag(CLI::App& app, const std::string& name, const std::string& help)
{
    return app.add_flag(name, help);
}

void describeCommandLine(CLI::App& root, Program& program, bool onlyChanges)
{
    root.require_subcommand(1);
    // Options of the whole program may stand behind the verb, too.
    root.fallthrough();
    if (!onlyChanges) {
        root.description("Reads and changes the filtering configuration of this device.");
        root.footer(closingText);
        root.set_version_flag("--version", "moatctl " MOATCTL_VERSION, "Print the version and exit");
        root.add_option("--server", program.server.socketPath, "Socket of the configuration server")
            ->type_name("PATH")
            ->capture_default_str();
        root.add_option_function<double>(
                "--timeout",
                [&program](const double& seconds) {
                    if (!(seconds > 0) || seconds > longestTimeout) {
                        std::ostringstream text;
                        text << "--timeout \"" << seconds << "\": expected seconds, more than 0 and at most 3600";
                        throw Failure(ExitStatus::BadInput, text.str());
                    }
                    program.server.timeout =
                        std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(seconds * 1000)));
                },
                "Longest wait for an answer of the server")
            ->type_name("SECONDS")
            ->default_str("5");
    }
    for (const Verb& verb : allVerbs()) {
        if (verb.changesRows || !onlyChanges)
            verb.add(root, program);
    }
}

int run(int argc, const char* const* argv, Program& program)
{
    ExitStatus status = ExitStatus::Ok;
    CLI::App root("", "moatctl");
    try {
        describeCommandLine(root, program);
        root.parse(argc, argv);
        status = carryOut(program);
    } catch (const CLI::CallForHelp&) {
        root.exit(CLI::CallForHelp(), program.out, program.err);
    } catch (const CLI::CallForVersion& version) {
        root.exit(version, program.out, program.err);
    } catch (const CLI::ParseError& error) {
        program.err << "moatctl: " << describeError(error, root) << '\n';
        status = ExitStatus::BadInput;
    } catch (const Failure& failure) {
        program.err << "moatctl: " << failure.what() << '\n';
        status = failure.status();
    } catch (const ovsdb::Error& error) {
        program.err << "moatctl: " << error.what() << '\n';
        status = ExitStatus::Server;
    }
    return static_cast<int>(status);
}

} // namespace moatctl
