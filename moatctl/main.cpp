#include "moatctl/command_line/run.hpp"
#include "moatctl/verbs/all.hpp"
#include "schema/tables.hpp"

#include <cstdlib>
#include <iostream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

std::string_view variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// A terminal that obeys escape sequences.
bool isCapable(int descriptor)
{
    return isatty(descriptor) == 1 && !variable("TERM").empty() && variable("TERM") != "dumb";
}

moatctl::Terminal terminal()
{
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        size = {};
    const bool obeys = isCapable(STDOUT_FILENO);
    return {
        .obeys = obeys, .colour = obeys && variable("NO_COLOR").empty(), .width = size.ws_col, .height = size.ws_row};
}

} // namespace

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    moatctl::Program program{
        .in = std::cin,
        .out = std::cout,
        .err = std::cerr,
        .verbs = moatctl::allVerbs(),
        .errIsTerminal = isCapable(STDERR_FILENO),
        .terminal = terminal(),
        .measure = terminal,
        .server = {.socketPath = std::string(schema::defaultSocketPath)},
    };
    return moatctl::run(argc, argv, program);
}
