#include "moatctl/command_line/parser.hpp"

#include "moatctl/command_line/errors.hpp"
#include "moatctl/tables/problem.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace moatctl
{

namespace
{

constexpr const char* closingText = R"(Exit status:
  0  done; check found nothing
  1  check found warnings; status or devices found something wrong
  2  the command line, a file or a configuration has errors, nothing was changed; explain or matrix cannot tell
  3  the server cannot be reached, does not answer in time or has another schema
  4  a row is missing, exists already or is in use, or others kept changing it
  5  the output could not be written, or there was not enough memory
  6  the change is stored, but not in force, or not all of it: standard error names the rows
  7  the change is stored, but no daemon has said in time that it applies it
  8  the kernel's tables cannot be read, or it cannot be made to trace frames
  9  a rollout has stopped, and everything was taken back
  10 a rollout has stopped, and the change is left somewhere

Example:
  moatctl rule add --in eth0 --out eth1 --src-mac 00:11:22:33:44:55 --drop)";

std::unique_ptr<CLI::App> rootOf(Program& program, bool onlyChanges)
{
    auto root = std::make_unique<CLI::App>("", onlyChanges ? "" : "moatctl");
    root->require_subcommand(1);
    root->fallthrough(); // options of the whole program may also follow the verb
    for (const Verb& verb : program.verbs) {
        if (verb.changesRows || !onlyChanges)
            verb.add(Command(*root), program);
    }
    return root;
}

// Parses, and names what is wrong.
template <typename... Arguments>
std::string parseWith(CLI::App& root, Arguments&&... arguments)
{
    try {
        root.parse(std::forward<Arguments>(arguments)...);
        return {};
    } catch (const CLI::CallForHelp&) {
        return root.help();
    } catch (const CLI::CallForVersion& version) {
        return std::string(version.what()) + '\n';
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitStatus::BadInput, describeError(error, root));
    }
}

} // namespace

Parser::Parser(Program& program) : m_root(rootOf(program, false))
{
    m_root->description("Reads and changes the filtering configuration of this device.");
    m_root->footer(closingText);
    m_root->set_version_flag("--version", "moatctl " MOATCTL_VERSION, "Print the version and exit");
    const Command root(*m_root);
    for (const Setting& setting : allSettings()) {
        const std::string option = std::string("--") + setting.key;
        Option added =
            root.option(option, setting.type, setting.help, [&program, setting, option](const std::string& text) {
                program.given[setting.key] = {text, option};
            });
        if (option == "--server")
            added.defaultsTo(program.server.socketPath);
        else if (option == "--timeout")
            added.defaultsTo("5");
    }
    root.flag("--insecure-tcp",
              "Let tcp: lead to other machines, though everybody on the way can read and change what is said",
              program.access.insecureTcp);
    root.option("--settings", "FILE", "File of settings, instead of the user's and the machine's",
                program.settingsFile);
    const Option wait =
        root.option("--wait", "COUNT",
                    "Wait until a change is in force on so many devices: all, a number, or a "
                    "percentage of those that count, such as 95%",
                    [&program](const std::string& text) {
                        const auto quorum = parseQuorum(text);
                        if (!quorum)
                            throw Failure(ExitStatus::BadInput,
                                          "--wait " + inQuotes(text) +
                                              ": expected all, a number of devices or a percentage of them, from 1");
                        program.quorum = *quorum;
                    })
            .defaultsTo("all");
    root.flag("--no-wait", "Change rows without waiting until the change is in force", program.noWait).excludes(wait);
}

Parser::Parser(Program& program, OnlyChanges) : m_root(rootOf(program, true)) {}

Parser::~Parser() = default;

std::string Parser::parse(int argc, const char* const* argv)
{
    return parseWith(*m_root, argc, argv);
}

std::string Parser::parse(std::vector<std::string> words)
{
    std::ranges::reverse(words); // as the library wants them
    return parseWith(*m_root, std::move(words));
}

} // namespace moatctl
