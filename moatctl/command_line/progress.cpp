#include "moatctl/command_line/progress.hpp"

#include <ostream>

namespace moatctl
{

namespace
{

constexpr std::chrono::milliseconds isLong{300};
constexpr std::chrono::milliseconds pause{100};

} // namespace

Progress::Progress(Program& program) : m_program(program), m_next(Clock::now() + isLong) {}

void Progress::show(const std::string& what, std::size_t done, std::size_t total)
{
    if (!m_program.errIsTerminal || Clock::now() < m_next)
        return;
    clear();
    m_program.err << what;
    if (total != 0)
        m_program.err << ": " << done * 100 / total << '%';
    m_program.err << std::flush;
    m_shown = true;
    m_next = Clock::now() + pause;
}

void Progress::clear()
{
    if (m_shown)
        m_program.err << "\r\033[K" << std::flush;
    m_shown = false;
}

} // namespace moatctl
