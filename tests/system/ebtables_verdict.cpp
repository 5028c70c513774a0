// Reads command lines from standard input and prints for each, on one line, "refused" and why, or "accepted" and the
// commands as they reach the tool, joined by " | ".
#include "ebtables/line_parser.hpp"

#include <iostream>
#include <string>

int main()
{
    std::string line;
    while (std::getline(std::cin, line)) {
        const ebtables::ParsedLine parsed = ebtables::parseLine(line);
        if (parsed.error) {
            std::cout << "refused\t" << parsed.error->text() << '\n';
            continue;
        }
        std::cout << "accepted\t";
        for (std::size_t i = 0; i < parsed.commands.size(); ++i)
            std::cout << (i == 0 ? "" : " | ") << toText(parsed.commands[i]);
        std::cout << '\n';
    }
}
