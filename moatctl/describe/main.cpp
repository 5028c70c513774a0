// Used by the build only: moatctl_describe manual < template, moatctl_describe completion.
#include "moatctl/command_line/verb.hpp"
#include "moatctl/describe/command_line.hpp"

#include <iostream>

int main(int argc, char** argv)
{
    moatctl::Program program{.in = std::cin, .out = std::cout, .err = std::cerr, .action = {}, .edit = {}};
    CLI::App root("", "moatctl");
    moatctl::describeCommandLine(root, program);
    const std::string what = argc == 2 ? argv[1] : "";
    if (what == "manual")
        moatctl::writeManual(std::cout, root, std::cin);
    else if (what == "completion")
        moatctl::writeCompletion(std::cout, root);
    else
        return 2;
    return std::cout.flush() ? 0 : 1;
}
