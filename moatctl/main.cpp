#include "moatctl/command_line/run.hpp"
#include "moatctl/verbs/all.hpp"
#include "schema/tables.hpp"

#include <cstdlib>
#include <iostream>
#include <unistd.h>

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    const bool outIsTerminal = isatty(STDOUT_FILENO) == 1;
    const char* noColour = std::getenv("NO_COLOR");
    moatctl::Program program{
        .in = std::cin,
        .out = std::cout,
        .err = std::cerr,
        .verbs = moatctl::allVerbs(),
        .errIsTerminal = isatty(STDERR_FILENO) == 1,
        .colour = outIsTerminal && (noColour == nullptr || *noColour == '\0'),
        .server = {.socketPath = std::string(schema::defaultSocketPath)},
    };
    return moatctl::run(argc, argv, program);
}
