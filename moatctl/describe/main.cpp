// Used by the build only: moatctl_describe manual < template, moatctl_describe completion,
// moatctl_describe tables SCHEMA < template.
#include "moatctl/command_line/parser.hpp"
#include "moatctl/describe/command_line.hpp"
#include "moatctl/describe/tables.hpp"
#include "moatctl/verbs/all.hpp"

#include <exception>
#include <fstream>
#include <iostream>

int main(int argc, char** argv)
{
    const std::string what = argc >= 2 ? argv[1] : "";
    try {
        moatctl::Program program{.in = std::cin, .out = std::cout, .err = std::cerr, .verbs = moatctl::allVerbs()};
        const moatctl::Parser parser(program);
        if (what == "manual" && argc == 2) {
            moatctl::writeManual(std::cout, parser.description(), std::cin);
        } else if (what == "completion" && argc == 2) {
            moatctl::writeCompletion(std::cout, parser.description());
        } else if (what == "tables" && argc == 3) {
            std::ifstream schema(argv[2]);
            moatctl::writeTables(std::cout, schema, std::cin);
        } else {
            return 2;
        }
    } catch (const std::exception& error) {
        std::cerr << "moatctl_describe " << what << ": " << error.what() << '\n';
        return 1;
    }
    return std::cout.flush() ? 0 : 1;
}
