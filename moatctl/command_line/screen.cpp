#include "moatctl/command_line/screen.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ostream>
#include <sstream>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace moatctl
{

namespace
{

constexpr std::string_view fromTheTop = "\033[H\033[J";
constexpr std::string_view hideCursor = "\033[?25l";
constexpr std::string_view showCursor = "\033[?25h";

volatile std::sig_atomic_t cursorIsHidden = 0;

extern "C" void endProgram(int)
{
    if (cursorIsHidden != 0) {
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, showCursor.data(), showCursor.size());
    }
    _exit(static_cast<int>(ExitStatus::Ok));
}

// The first lines, as many as the screen has (0: nobody knows), less one for the cursor.
std::string_view fitting(std::string_view text, std::size_t lines)
{
    std::size_t end = 0;
    for (std::size_t line = 0; (lines == 0 || line + 1 < lines) && end < text.size(); ++line)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
    return text.substr(0, end);
}

} // namespace

void endOnSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, endProgram);
}

Screen::Screen(Program& program) : m_program(program)
{
    endOnSignals();
}

Screen::~Screen()
{
    m_program.out << showCursor << std::flush;
    cursorIsHidden = 0;
}

void Screen::write(const std::string& text)
{
    cursorIsHidden = 1;
    m_program.out << fromTheTop << hideCursor << fitting(text, m_program.terminal.height) << std::flush;
}

ExitStatus showEverySecond(Program& program, const OutputStyle& style, const std::function<void(std::ostream&)>& write)
{
    constexpr std::chrono::seconds pause{1};
    if (!program.terminal.obeys || style.format != Format::Table)
        throw Failure(ExitStatus::BadInput, "--watch: expected a terminal for standard output, and the format table");
    Screen screen(program);
    while (program.out) {
        screen.show([&] {
            std::ostringstream text;
            write(text);
            return text.str();
        });
        std::this_thread::sleep_for(pause);
    }
    return ExitStatus::Ok; // the output is gone, which the caller tells
}

} // namespace moatctl
