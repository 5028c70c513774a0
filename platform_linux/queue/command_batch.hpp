// The command queue's store: parsed commands in order, and the line that each came from.
#pragma once

#include "ebtables/command.hpp"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zol::cfg
{

// Owns what it stores. Threading: no shared state. No operation throws but std::bad_alloc.
class CommandBatch
{
public:
    // Valid until the next call that is not const.
    std::span<const ebtables::Command> commands() const { return m_commands; }

    // The line that the command with this index came from; valid as long as commands().
    std::string_view line(std::size_t index) const;

    // Puts the commands of one line at the end.
    void add(std::vector<ebtables::Command>&& commands, std::string_view line);

    // Takes off the first `count` commands.
    void dropFirst(std::size_t count);

    // Among the first `count` commands, leaves out what a later flush of the same chain undoes anyway, so that what
    // waits while the tool cannot run does not grow without end. Jumps stay: whether a chain can be deleted may depend
    // on them. Returns how many of the first `count` are left.
    std::size_t compact(std::size_t count);

private:
    struct Line { // where it is in m_text: thousands of lines share one block of memory
        std::size_t begin;
        std::size_t size;
    };

    void keepOnly(const std::vector<bool>& keep);

    std::vector<ebtables::Command> m_commands;
    std::vector<std::size_t> m_lineOf; // a command's index in m_lines
    std::vector<Line> m_lines;
    std::string m_text;
};

} // namespace zol::cfg
