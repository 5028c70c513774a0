// The input of one ebtables-restore: commands that the kernel takes in one transaction, or not at all.
#pragma once

#include "ebtables/command.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace ebtables
{

// Remembers which command each of its lines belongs to. No operation throws but std::bad_alloc.
class RestoreBlock
{
public:
    // index: the caller's number for the command.
    void add(const Command& command, std::size_t index)
    {
        if (command.kind == CommandKind::DeleteChain) { // the tool deletes empty chains only
            Command flush = command;
            flush.kind = CommandKind::Flush;
            addLine(flush, index);
        }
        addLine(command, index);
    }

    std::string text() const { return m_text + "COMMIT\n"; }

    // The command that line K (as the tool counts: from 1, "*filter" included) belongs to.
    std::optional<std::size_t> owner(unsigned line) const
    {
        return line >= 2 && line - 2 < m_owners.size() ? std::optional(m_owners[line - 2]) : std::nullopt;
    }

    bool isCommit(unsigned line) const { return line == m_owners.size() + 2; }

private:
    void addLine(const Command& command, std::size_t index)
    {
        appendText(m_text, command);
        m_text += '\n';
        m_owners.push_back(index);
    }

    std::string m_text = "*filter\n";
    std::vector<std::size_t> m_owners;
};

} // namespace ebtables
