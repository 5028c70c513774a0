// The order in which the platform was used: one line for every call, across all of its parts.
//
// Off at first, because a handler that reads large tables makes many calls. A test switches it on, runs what it
// wants to see, and compares the lines. One thread.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace fake
{

class Journal
{
public:
    // Starts a new list of lines (true) or stops recording (false); lines recorded so far stay readable then.
    void record(bool on);

    // Adds the parts as one line when recording, else does nothing.
    void note(std::initializer_list<std::string_view> parts);

    // The reference lives until the next record(true).
    const std::vector<std::string>& lines() const { return m_lines; }

private:
    bool m_on = false;
    std::vector<std::string> m_lines;
};

// The process's one journal.
Journal& journal();

} // namespace fake
