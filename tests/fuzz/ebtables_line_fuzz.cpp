// Any bytes as a command line: never a crash; what is accepted is read back the same from what the tool would get, and
// that is one clean line.
#include "ebtables/line_parser.hpp"
#include "ebtables/table.hpp"

#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const ebtables::ParsedLine parsed = ebtables::parseLine(input);
    if (parsed.error && (parsed.error->text().empty() || !parsed.commands.empty()))
        std::abort();
    for (const ebtables::Command& command : parsed.commands) {
        const std::string text = toText(command);
        for (const char c : text) {
            if (c < ' ' || c > '~')
                std::abort();
        }
        const ebtables::ParsedLine again = ebtables::parseLine("ebtables " + text);
        if (again.commands.size() != 1 || !(again.commands.front() == command))
            std::abort();
    }
    ebtables::parseSaved(input);
    return 0;
}
