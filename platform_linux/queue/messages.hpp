// What ebtables-restore says on standard error when it refuses lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ebtables
{

struct Messages {
    struct Line {
        unsigned number; // counts from 1, "*filter" included
        std::string reason;
    };
    std::vector<Line> lines; // as said, in the order said
    bool cut = false;        // more were refused than are listed
    bool shortage = false;   // memory or buffers ran out: nothing is wrong with the lines
    std::string text;        // all of it as one printable line, at most 300 characters
};

// exitCode: how the tool ended. Lines of other forms are passed over. Any bytes are taken.
Messages parseMessages(int exitCode, std::string_view errors);

} // namespace ebtables
