// How a verb becomes part of moatctl: a function in verbs/ describes its options and leaves, when it was the verb on
// the command line, what is to be done in the program; verbs/all.cpp lists the functions.
#pragma once

#include "endpoint/endpoint.hpp"
#include "moatctl/command_line/options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/quorum.hpp"
#include "moatctl/command_line/settings.hpp"
#include "moatctl/exit_status.hpp"
#include "ovsdb/client.hpp"

#include <functional>
#include <iosfwd>
#include <memory>
#include <span>

namespace moatctl
{

class Editor;
struct Occasion;
struct Program;

struct Verb {
    // Adds the verb to the root command. Both live until the program ends.
    void (*add)(const Command& root, Program& program);
    bool changesRows; // sets Program::edit, and may stand in a batch
};

// What a verb finds around it. Lives as long as the program runs.
struct Program {
    std::istream& in;
    std::ostream& out;                   // data
    std::ostream& err;                   // messages
    std::span<const Verb> verbs;         // in the order of the help
    bool errIsTerminal = false;          // one that can do more than print
    Terminal terminal{};                 // of out
    std::function<Terminal()> measure{}; // the same by now

    ovsdb::ClientOptions server{};               // on this machine, unless there are endpoints
    std::vector<endpoint::Endpoint> endpoints{}; // --server
    endpoint::Access access{};                   // --private-key, --certificate, --ca-cert, --insecure-tcp
    GivenSettings given{};                       // on the command line
    std::string settingsFile{};                  // --settings
    bool force = false;                          // --force
    bool noWait = false;                         // --no-wait
    Quorum quorum{};                             // --wait
    // Called now and then while a change is not in force yet; may throw, which ends the wait.
    std::function<void()> whileWaiting{};

    std::shared_ptr<Occasion> occasion{}; // what the history is to keep of a change

    // Set by the verb that was given, exactly one of the two. They run after the whole command line was found right,
    // and may throw Failure and the errors of ovsdb::Client.
    std::function<ExitStatus()> action{};
    std::function<void(Editor&)> edit{}; // verbs that change rows: also on a line of a batch

    ovsdb::Client connect() const { return connect(server); }
    ovsdb::Client connect(const ovsdb::ClientOptions& options) const;
    ovsdb::Client connectToHistory() const;
    ovsdb::Client connectToDevices() const; // schema::devicesDatabase
};

} // namespace moatctl
