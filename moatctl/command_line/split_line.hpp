// The lines of a batch.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

struct SplitLine {
    std::vector<std::string> words;
    std::string error; // why the line cannot be split; "" when it can
};

// Words between blanks. '...' and "..." hold blanks together (in "..." a backslash takes the next character as it
// is), # at the beginning of a word begins a comment.
SplitLine splitLine(std::string_view line);

} // namespace moatctl
