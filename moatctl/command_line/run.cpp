#include "moatctl/command_line/run.hpp"

#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/parser.hpp"
#include "moatctl/tables/history.hpp"
#include "schema/server/database.hpp"
#include "schema/server/trial.hpp"

#include <algorithm>
#include <chrono>
#include <new>
#include <ostream>

namespace moatctl
{

namespace
{

// A single server on this machine is reached as it always was.
ovsdb::ClientOptions withServers(ovsdb::ClientOptions options, const Program& program)
{
    if (program.endpoints.size() == 1 && program.endpoints.front().kind == endpoint::Kind::Local) {
        options.socketPath = program.endpoints.front().path;
        return options;
    }
    try {
        options.servers = endpoint::serversOf(program.endpoints, program.access);
    } catch (const endpoint::Mistake& mistake) {
        throw Failure(ExitStatus::BadInput, mistake.what());
    }
    return options;
}

} // namespace

ovsdb::Client Program::connect(const ovsdb::ClientOptions& options) const
{
    return ovsdb::Client(schema::serverDatabaseWithDevices(), withServers(options, *this));
}

ovsdb::Client Program::connectToHistory() const
{
    return ovsdb::Client(schema::historyDatabase(), withServers(server, *this));
}

ovsdb::Client Program::connectToDevices() const
{
    return ovsdb::Client(schema::devicesDatabase(), withServers(server, *this));
}

namespace
{

// After whatever shows something: a change that waits, if there is one.
void tellTrial(const Program& program)
{
    constexpr std::chrono::milliseconds patience{500};
    try {
        ovsdb::ClientOptions options = program.server;
        options.onProgress = {};
        options.timeout = std::min(options.timeout, patience);
        ovsdb::Client client = program.connect(options);
        if (std::ranges::find(client.tableNames(), schema::trialTable) == client.tableNames().end())
            return;
        if (const auto trial = schema::trialOf(client.read({std::string(schema::trialTable)})))
            program.err << toText(*trial) << " (moatctl confirm, or moatctl cancel)\n";
    } catch (const ovsdb::Error&) {
        // The verb has done without the server, too.
    } catch (const Failure&) {
        // Likewise, as there is no way to it.
    }
}

ExitStatus act(Program& program)
{
    if (program.edit)
        return carryOut(program, checked(program, program.edit));
    const ExitStatus status = program.action();
    program.out.flush();
    if (program.occasion->host.empty()) // what changes something has found that out by itself
        tellTrial(program);
    return status;
}

} // namespace

int run(int argc, const char* const* argv, Program& program)
{
    ExitStatus status = ExitStatus::Ok;
    try {
        program.occasion = std::make_shared<Occasion>();
        program.occasion->verb = commandLine(argc, argv);
        Parser parser(program);
        if (const std::string asked = parser.parse(argc, argv); !asked.empty()) {
            program.out << asked;
        } else {
            applySettings(program);
            status = act(program);
        }
        program.out.flush();
        if (!program.out)
            throw Failure(ExitStatus::Output, "the output could not be written");
    } catch (const Failure& failure) {
        program.err << "moatctl: " << failure.what() << '\n';
        status = failure.status();
    } catch (const std::bad_alloc&) {
        program.err << "moatctl: there is not enough memory\n";
        status = ExitStatus::Output;
    } catch (const ovsdb::Error& error) {
        program.err << "moatctl: " << error.what() << '\n';
        status = ExitStatus::Server;
    }
    return static_cast<int>(status);
}

} // namespace moatctl
