// How a verb becomes part of moatctl: a function in verbs/ describes its options to CLI11 and leaves, when it was the
// verb on the command line, what is to be done in the program; verbs/all.cpp lists the functions.
#pragma once

#include "moatctl/exit_status.hpp"
#include "ovsdb/client.hpp"
#include "schema/server/database.hpp"

#include <CLI/CLI.hpp>

#include <functional>
#include <iosfwd>
#include <span>
#include <string>

namespace moatctl
{

class Editor;

// What a verb finds around it. Lives as long as the program runs.
struct Program {
    std::istream& in;
    std::ostream& out; // data
    std::ostream& err; // messages
    bool outIsTerminal = false;
    bool errIsTerminal = false;
    bool colour = false; // on out: a terminal, and NO_COLOR is not set

    ovsdb::ClientOptions server{}; // --server, --timeout

    // Set by the callback of the verb that was given, exactly one of the two. They run after the whole command line
    // was found right, and may throw Failure and the errors of ovsdb::Client.
    std::function<ExitStatus()> action;
    std::function<void(Editor&)> edit; // verbs that change rows: also on a line of a batch

    ovsdb::Client connect() const { return {schema::serverDatabase(), server}; }
};

struct Verb {
    // Adds the verb to the root command. Both live until the program ends.
    void (*add)(CLI::App& root, Program& program);
    bool changesRows; // sets Program::edit, and may stand in a batch
};

// In the order of the help.
std::span<const Verb> allVerbs();

// A sub-command with a description and an example for its help. The example is what follows "moatctl ".
CLI::App* addSubcommand(CLI::App& parent, const std::string& name, const std::string& description,
                        const std::string& example);

// An option without a variable: its values are taken from the option (see Given). And a flag.
CLI::Option* addValueOption(CLI::App& app, const std::string& name, const std::string& type, const std::string& help);
CLI::Option* addFlag(CLI::App& app, const std::string& name, const std::string& help);

// Adds the options and verbs of the whole program; with onlyChanges those that may stand in a batch.
void describeCommandLine(CLI::App& root, Program& program, bool onlyChanges = false);

// The whole program, as main runs it. Returns the exit status.
int run(int argc, const char* const* argv, Program& program);

} // namespace moatctl
