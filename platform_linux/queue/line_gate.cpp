#include "platform_linux/queue/line_gate.hpp"

#include "ebtables/allowed_forms.hpp"

namespace zol::cfg
{

namespace
{

ebtables::ParsedLine refused(ebtables::LineError error)
{
    return {.commands = {}, .error = std::move(error)};
}

} // namespace

ebtables::ParsedLine Gate::take(std::string_view line)
{
    ebtables::ParsedLine parsed = ebtables::parseLine(line);
    if (parsed.error || m_anyForm)
        return parsed;
    if (auto error = ebtables::whyNotAllowed(line))
        return refused(std::move(*error));
    // The second command of a line is about the same chain as the first.
    if (!parsed.commands.empty() && !m_chains.mayCarryOut(parsed.commands.front())) {
        const ebtables::Command& command = parsed.commands.front();
        return refused({ebtables::isFilterChain(command.chain) ? command.chain : command.rule.target, "",
                        "a chain that this process has made with -N"});
    }
    for (const ebtables::Command& command : parsed.commands)
        m_chains.expect(command);
    return parsed;
}

} // namespace zol::cfg
