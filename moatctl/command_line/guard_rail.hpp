// Keeps administrators from cutting off the way by which they are connected.
#pragma once

#include "moatctl/bridge/connection.hpp"
#include "moatctl/command_line/verb.hpp"

#include <optional>
#include <vector>

namespace moatctl
{

class GuardRail
{
public:
    // wayOut: what can be done instead, in words.
    explicit GuardRail(
        const Program& program,
        const char* wayOut = "--confirm SECONDS lets it go back by itself, --force stores it all the same")
        : m_program(program), m_wayOut(wayOut)
    {
    }

    // Throws Failure(BadInput) when the edit would close the way of the SSH connection that this program runs in; a
    // note of the editor says so instead when the change goes back by itself or is forced.
    void look(Editor& editor);

private:
    const Program& m_program;
    const char* const m_wayOut;
    std::optional<std::vector<ConnectionFrame>> m_frames; // the same for each attempt
};

} // namespace moatctl
