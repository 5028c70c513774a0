#include "platform_linux/queue/command_batch.hpp"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

namespace zol::cfg
{

using ebtables::Command;
using ebtables::CommandKind;

std::string_view CommandBatch::line(std::size_t index) const
{
    const Line& line = m_lines[m_lineOf[index]];
    return std::string_view(m_text).substr(line.begin, line.size);
}

void CommandBatch::add(std::vector<Command>&& commands, std::string_view line)
{
    m_lineOf.insert(m_lineOf.end(), commands.size(), m_lines.size());
    m_lines.push_back({m_text.size(), line.size()});
    m_text += line;
    std::ranges::move(commands, std::back_inserter(m_commands));
}

void CommandBatch::dropFirst(std::size_t count)
{
    std::vector<bool> keep(m_commands.size(), true);
    std::fill_n(keep.begin(), count, false);
    keepOnly(keep);
}

std::size_t CommandBatch::compact(std::size_t count)
{
    std::set<std::string> flushedLater;
    std::vector<bool> keep(m_commands.size(), true);
    std::size_t left = count;
    for (std::size_t i = count; i-- > 0;) {
        const Command& command = m_commands[i];
        switch (command.kind) {
        case CommandKind::Flush:
            keep[i] = flushedLater.insert(command.chain).second;
            break;
        case CommandKind::DeleteChain:
            flushedLater.insert(command.chain);
            break;
        case CommandKind::NewChain:
            flushedLater.erase(command.chain);
            break;
        case CommandKind::Policy:
            break;
        default:
            keep[i] = !flushedLater.contains(command.chain) || !ebtables::isStandardTarget(command.rule.target);
        }
        left -= keep[i] ? 0 : 1;
    }
    keepOnly(keep);
    return left;
}

void CommandBatch::keepOnly(const std::vector<bool>& keep)
{
    CommandBatch kept;
    std::size_t last = m_lines.size();
    for (std::size_t i = 0; i < m_commands.size(); ++i) {
        if (!keep[i])
            continue;
        if (m_lineOf[i] != last) {
            last = m_lineOf[i];
            kept.m_lines.push_back({kept.m_text.size(), m_lines[last].size});
            kept.m_text += line(i);
        }
        kept.m_lineOf.push_back(kept.m_lines.size() - 1);
        kept.m_commands.push_back(std::move(m_commands[i]));
    }
    *this = std::move(kept);
}

} // namespace zol::cfg
