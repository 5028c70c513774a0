// Says on a terminal how far long work has come; silent elsewhere, and while the work is short.
#pragma once

#include "moatctl/command_line/verb.hpp"

#include <chrono>
#include <cstddef>
#include <string>

namespace moatctl
{

// One line on standard error, written over and over. Before anything else goes there, clear() is to be called.
class Progress
{
public:
    explicit Progress(Program& program);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // "what: 40%", or while the total is not known "what".
    void show(const std::string& what, std::size_t done = 0, std::size_t total = 0);
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    Program& m_program;
    Clock::time_point m_next; // not shown before
    bool m_shown = false;
};

} // namespace moatctl
