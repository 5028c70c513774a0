// A terminal on which something is shown over and over, until the program is interrupted.
#pragma once

#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/verb.hpp"
#include "moatctl/exit_status.hpp"

#include <functional>
#include <iosfwd>
#include <string>

namespace moatctl
{

// SIGINT, SIGTERM and SIGHUP end the program from then on, with status 0: whatever was written out is whole.
void endOnSignals();

// The cursor is hidden as long as this lives; it is back when it goes, and when such a signal ends the program.
class Screen
{
public:
    explicit Screen(Program& program);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Lines from the top, as many as fit. Measures the terminal first: the text is to be made for program.terminal.
    template <typename Make>
    void show(const Make& make)
    {
        m_program.terminal = m_program.measure();
        write(make());
    }

private:
    void write(const std::string& text);

    Program& m_program;
};

// For --watch: shows every second what `write` writes, until a signal or the output's end. Throws Failure(BadInput)
// where the output is no terminal or the format is not the table.
ExitStatus showEverySecond(Program& program, const OutputStyle& style, const std::function<void(std::ostream&)>& write);

} // namespace moatctl
