// Frames out of what the kernel tells of each step of those that it traces.
#pragma once

#include "moatctl/bridge/frame.hpp"
#include "nftables/rule_message.hpp"
#include "nftables/trace_watch.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace moatctl
{

struct TracedFrame {
    Frame frame;
    bool accepted = true;
    // Where that was decided: by a rule, or (0) by the chain's policy. No table: none of the bridge's has decided.
    std::string table, chain;
    std::uint64_t rule = 0;
};

// The frame whose headers begin with these bytes, as far as they tell.
Frame frameOf(const nftables::TraceEvent& event);

class TracedFrames
{
public:
    using Time = std::chrono::steady_clock::time_point;

    // Of the frames that this table has chosen. Where the kernel's bridge filter stands between others, what it accepts
    // is accepted: what comes behind it is not looked at.
    explicit TracedFrames(std::string table) : m_table(std::move(table)) {}

    // The table that is the bridge's filter from now on: ebtables' own, or the one of the compiled form.
    void setFilter(std::string_view table) { m_filter = table; }

    // The next message, and when it came. Frames whose fate is known with it are appended.
    void take(const nftables::TraceEvent& event, Time now, std::vector<TracedFrame>& frames);

    // Frames of which nothing has been heard since: no rule of the bridge's filter has looked at them. When messages
    // were lost that cannot be said: they are forgotten.
    void settle(Time since, bool messagesWereLost, std::vector<TracedFrame>& frames);

private:
    struct Underway {
        Frame frame;
        std::vector<std::uint8_t> link;
        std::uint32_t out = 0;
        Time last;
        bool isChosen = false;
        bool isFiltered = false; // by the bridge's filter
    };

    std::string m_table;
    std::string m_filter = nftables::filterTable;
    std::map<std::uint32_t, Underway> m_underway;
};

} // namespace moatctl
