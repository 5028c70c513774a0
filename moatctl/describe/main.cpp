// Used by the build only: moatctl_describe manual < template, moatctl_describe completion.
#include "moatctl/command_line/parser.hpp"
#include "moatctl/describe/command_line.hpp"
#include "moatctl/verbs/all.hpp"

#include <iostream>

int main(int argc, char** argv)
{
    moatctl::Program program{.in = std::cin, .out = std::cout, .err = std::cerr, .verbs = moatctl::allVerbs()};
    const moatctl::Parser parser(program);
    const std::string what = argc == 2 ? argv[1] : "";
    if (what == "manual")
        moatctl::writeManual(std::cout, parser.description(), std::cin);
    else if (what == "completion")
        moatctl::writeCompletion(std::cout, parser.description());
    else
        return 2;
    return std::cout.flush() ? 0 : 1;
}
