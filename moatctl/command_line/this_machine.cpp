#include "moatctl/command_line/this_machine.hpp"

#include "moatctl/command_line/verb.hpp"

#include <algorithm>

namespace moatctl
{

namespace
{

std::string namesOf(const std::vector<endpoint::Endpoint>& servers)
{
    std::string names;
    for (const endpoint::Endpoint& server : servers)
        names += (names.empty() ? "" : ",") + endpoint::toText(server);
    return names;
}

} // namespace

bool isElsewhere(const Program& program)
{
    return std::ranges::any_of(program.endpoints, [&program](const endpoint::Endpoint& server) {
        return server.kind == endpoint::Kind::Tls || (server.kind == endpoint::Kind::Tcp && program.access.insecureTcp);
    });
}

void requireThisMachine(const Program& program, const std::string& verb, const std::string& instead)
{
    if (isElsewhere(program))
        throw Failure(ExitStatus::BadInput, verb + " is about this machine, and the configuration on " +
                                                namesOf(program.endpoints) + " is that of others: " + instead);
}

std::string notLookedAt(const Program& program)
{
    return "not looked at: the configuration on " + namesOf(program.endpoints) + " is that of other machines";
}

CheckOptions checkHere(const Program& program)
{
    CheckOptions options;
    if (!isElsewhere(program))
        options.interfaceState = interfaceHere;
    return options;
}

} // namespace moatctl
