// What the log has been told of lines that are refused, so that it is told once and not at each commit.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zol::cfg
{

// Threading: no shared state. No operation throws but std::bad_alloc.
class Refusals
{
public:
    // A line was queued, whatever becomes of it: those refused before that it replaces are gone unless they come again.
    void noteLine(std::string_view line);

    // A line is refused. True when that is new, or the reason is.
    bool add(std::string_view line, const std::string& reason);

    // All lines of a commit have been seen: the lines that were refused before it and are not any more.
    std::vector<std::string> takeGone();

    // Those that were to put something in force; what was to be taken out and cannot be is not.
    void forEachAddition(const std::function<void(const std::string& line, const std::string& reason)>& call) const;

private:
    struct Refusal {
        std::string reason;
        bool doubtful = false;
        bool fresh = false; // refused by this commit
    };

    void doubt(const std::function<bool(std::string_view line)>& which);

    std::map<std::string, Refusal, std::less<>> m_refusals;
};

} // namespace zol::cfg
