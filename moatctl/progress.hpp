// Says on a terminal what long work is at; silent elsewhere.
#pragma once

#include "moatctl/verb.hpp"

#include <ostream>
#include <string>

namespace moatctl
{

class Progress
{
public:
    explicit Progress(Program& program) : m_program(program) {}
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Takes the place of what was said before.
    void say(const std::string& text)
    {
        if (!m_program.errIsTerminal)
            return;
        clear();
        m_program.err << text << "..." << std::flush;
        m_said = true;
    }
    // Before anything else is written.
    void clear()
    {
        if (m_said)
            m_program.err << "\r\033[K" << std::flush;
        m_said = false;
    }

private:
    Program& m_program;
    bool m_said = false;
};

} // namespace moatctl
