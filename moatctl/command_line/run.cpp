#include "moatctl/command_line/run.hpp"

#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/parser.hpp"
#include "schema/server/database.hpp"

#include <new>
#include <ostream>

namespace moatctl
{

ovsdb::Client Program::connect(const ovsdb::ClientOptions& options) const
{
    return ovsdb::Client(schema::serverDatabaseWithDevices(), options);
}

ovsdb::Client Program::connectToHistory() const
{
    return ovsdb::Client(schema::historyDatabase(), server);
}

int run(int argc, const char* const* argv, Program& program)
{
    ExitStatus status = ExitStatus::Ok;
    try {
        program.occasion = std::make_shared<Occasion>();
        program.occasion->verb = commandLine(argc, argv);
        Parser parser(program);
        if (const std::string asked = parser.parse(argc, argv); !asked.empty())
            program.out << asked;
        else
            status = program.edit ? carryOut(program, checked(program, program.edit)) : program.action();
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
