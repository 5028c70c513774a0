#include "platform_linux/queue/legacy_tables.hpp"

#include "ebtables/line_parser.hpp"
#include "ebtables/table.hpp"
#include "platform_linux/queue/own_chains.hpp"
#include "text/one_line.hpp"

#include <optional>

namespace zol::cfg
{

namespace
{

using ebtables::Command;
using ebtables::RunResult;

std::vector<std::string> arguments(const Command& command)
{
    std::vector<std::string> words(1);
    bool quoted = false;
    for (const char c : toText(command)) {
        if (c == '"')
            quoted = !quoted;
        else if (c == ' ' && !quoted)
            words.emplace_back();
        else
            words.back() += c;
    }
    return words;
}

// What the tool said, as one line.
std::string messageOf(const RunResult& result)
{
    std::string text;
    for (const char c : result.errors + result.output) {
        if (c != '\n')
            text += c;
        else if (!text.empty() && text.back() != ' ')
            text += ' ';
    }
    while (text.ends_with(' '))
        text.pop_back();
    return text::oneLine(text, 300);
}

// Why nothing can be done now; nothing when the command itself was refused.
std::optional<std::string> obstacle(const std::string& tool, const RunResult& result, const std::string& message)
{
    if (result.end != RunResult::End::Exited)
        return result.reason;
    const auto says = [&](const char* words) { return message.find(words) != std::string::npos; };
    if (says("ermission") || says("not permitted") || says("must be root"))
        return tool + ": " + message + "; run as root or with CAP_NET_ADMIN";
    if (says("out of memory") || says("annot allocate") || says("No buffer space"))
        return tool + ": " + message + "; is there memory enough?";
    return std::nullopt;
}

} // namespace

void LegacyTables::setLeftover(ebtables::Footprint leftover)
{
    m_leftover = std::move(leftover);
    m_footprint = m_leftover;
}

void LegacyTables::startOver()
{
    m_waiting = {};
    m_leftover = m_footprint;
    m_leftoverLast = true;
    m_policiesSet.clear();
}

void LegacyTables::add(std::vector<Command>&& commands, std::string_view line)
{
    m_waiting.add(std::move(commands), line);
}

ebtables::Footprint LegacyTables::footprint() const
{
    ebtables::Footprint after = m_footprint;
    ebtables::Footprint united = m_footprint;
    for (const Command& command : m_waiting.commands()) {
        after.note(command);
        if (command.kind != ebtables::CommandKind::DeleteChain && command.kind != ebtables::CommandKind::Delete)
            united.note(command);
    }
    united.unite(after);
    united.unite(m_footprint);
    return united;
}

LegacyTables::Outcome LegacyTables::carryOut(int keepOpen)
{
    Outcome outcome;
    ebtables::RunLimits limits = m_limits;
    limits.keepOpen = keepOpen;
    if (!m_leftoverLast && !takeOutLeftover(limits, outcome))
        return outcome;
    ebtables::OwnChains own(m_footprint.chains());
    std::size_t done = 0;
    for (const Command& command : m_waiting.commands()) {
        if (!own.mayCarryOut(command)) {
            outcome.refused.push_back({std::string(m_waiting.line(done++)), std::string(ebtables::notOurChain)});
            continue;
        }
        const RunResult result = ebtables::runTool(m_tools.ebtables, arguments(command), {}, limits);
        const std::string message = messageOf(result);
        if (auto reason = obstacle(m_tools.ebtables, result, message)) {
            m_waiting.dropFirst(done);
            m_waiting.compact(m_waiting.commands().size());
            outcome.reason = std::move(*reason);
            return outcome;
        }
        if (result.exitCode == 0) {
            m_footprint.note(command);
            own.note(command);
            if (m_leftoverLast && command.kind == ebtables::CommandKind::Policy)
                m_policiesSet.insert(command.chain);
            outcome.changed = true;
        } else {
            outcome.refused.push_back(
                {std::string(m_waiting.line(done)), message.empty() ? "refused without a reason" : message});
        }
        ++done;
    }
    m_waiting.dropFirst(done);
    outcome.done = takeOutLeftover(limits, outcome);
    return outcome;
}

bool LegacyTables::takeOutLeftover(const ebtables::RunLimits& limits, Outcome& outcome)
{
    if (m_leftover.empty())
        return true;
    const RunResult saved = ebtables::runTool(m_tools.save, {}, {}, limits);
    if (saved.end != RunResult::End::Exited || saved.exitCode != 0) {
        outcome.reason = saved.end != RunResult::End::Exited ? saved.reason : m_tools.save + ": " + messageOf(saved);
        return false;
    }
    for (const Command& command : m_leftover.undo(ebtables::parseSaved(saved.output))) {
        if (command.kind == ebtables::CommandKind::Policy && m_policiesSet.contains(command.chain))
            continue;
        const RunResult result = ebtables::runTool(m_tools.ebtables, arguments(command), {}, limits);
        const std::string message = messageOf(result);
        if (auto reason = obstacle(m_tools.ebtables, result, message)) {
            outcome.reason = std::move(*reason);
            return false;
        }
        m_footprint.note(command);
        outcome.changed = true;
    }
    m_leftover = {};
    m_leftoverLast = false;
    m_policiesSet.clear();
    return true;
}

} // namespace zol::cfg
