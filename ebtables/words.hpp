// A command line as words: the first step of reading it, for whoever looks at how it is written and not only at what it
// means.
#pragma once

#include "ebtables/line_parser.hpp"

#include <forward_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebtables
{

// A word without its quotes: a view of the line or of SplitLine::joined.
struct Word {
    std::string_view text;
    bool quoted = false;
    bool is(std::string_view plain) const { return !quoted && text == plain; }
};

using Words = std::vector<Word>;

struct SplitLine {
    std::vector<Words> commands; // one more than there are `;`; empty where nothing stands before or after one
    std::forward_list<std::string> joined; // words such as a"b"c, of which the line has only the pieces
    std::optional<LineError> error;        // then there are no commands
};

// Splits into commands at `;` and each command into words at blanks. Refuses what a shell would do something with.
// The line must outlive the result.
SplitLine splitLine(std::string_view line);

} // namespace ebtables
