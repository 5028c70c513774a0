#include "moatctl/command_line/guard_rail.hpp"

#include "moatctl/check/closed_way.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/edit.hpp"

namespace moatctl
{

namespace
{

std::vector<ConnectionFrame> framesOfOwnConnection()
{
    const auto connection = parseConnection(sshConnection());
    return connection ? framesOf(*connection, learnFacts(*connection)) : std::vector<ConnectionFrame>();
}

} // namespace

void GuardRail::look(Editor& editor)
{
    if (editor.configuration == editor.before || isElsewhere(m_program))
        return;
    if (!m_frames)
        m_frames = framesOfOwnConnection();
    const auto closed = closedWay(*m_frames, editor.before, editor.configuration);
    if (!closed)
        return;
    const std::string text = "this cuts off your own connection, " + *closed;
    if (!m_program.force && m_program.occasion->trial == 0)
        throw Failure(ExitStatus::BadInput, text + "; nothing was changed (" + m_wayOut + ')');
    editor.note("warning: " + text);
}

} // namespace moatctl
