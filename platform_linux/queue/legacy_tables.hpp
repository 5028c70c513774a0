// The bridge tables of a kernel that only the legacy tool can change: one process a command.
#pragma once

#include "platform_linux/queue/command_batch.hpp"
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/tool.hpp"

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace zol::cfg
{

// Threading: one thread. No operation throws but std::bad_alloc.
class LegacyTables
{
public:
    LegacyTables(ebtables::ToolPaths tools, ebtables::RunLimits limits) : m_tools(std::move(tools)), m_limits(limits) {}

    // What a killed process left; the first commands take it out.
    void setLeftover(ebtables::Footprint leftover);

    void add(std::vector<ebtables::Command>&& commands, std::string_view line);

    struct Refused {
        std::string line;
        std::string reason;
    };
    struct Outcome {
        bool done = false;
        std::string reason; // why not; what was not carried out waits
        bool changed = false;
        std::vector<Refused> refused;
    };

    // Carries out what was added, in order.
    Outcome carryOut(int keepOpen);

    // From here on nothing waits, and what is there of ours counts as a leftover. It is taken out behind the commands
    // that are added next, not before them; policies that these set stay.
    void startOver();

    // What is of ours in the tables, and what will be when all that waits is carried out as well.
    ebtables::Footprint footprint() const;

private:
    bool takeOutLeftover(const ebtables::RunLimits& limits, Outcome& outcome);

    ebtables::ToolPaths m_tools;
    ebtables::RunLimits m_limits;
    CommandBatch m_waiting;
    ebtables::Footprint m_leftover;
    bool m_leftoverLast = false;
    std::set<std::string> m_policiesSet; // since it is to go last
    ebtables::Footprint m_footprint;
};

} // namespace zol::cfg
