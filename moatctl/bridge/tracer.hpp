// Has the kernel trace frames, for as long as this lives.
#pragma once

#include "ebtables/command.hpp"
#include "moatctl/bridge/traced_frames.hpp"
#include "nftables/connection.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// What is chosen; as in nftables/trace_table.hpp.
struct TraceChoice {
    ebtables::Rule rule;
    bool toDevice = true;
    bool forwarded = true;
    std::uint32_t limit = 100; // frames a second
};

class Tracer
{
public:
    struct Counts {
        std::uint64_t chosen = 0;
        std::uint64_t overLimit = 0; // of them, not traced
    };

    // Throws Failure(Kernel).
    explicit Tracer(const TraceChoice& choice);
    ~Tracer();
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    // Whether the kernel takes out what it was given as soon as this process ends, however that happens.
    bool endsByItself() const { return m_endsByItself; }

    // Frames whose fate is known by now; waits for some, so long at most. A signal that is handled ends the waiting.
    std::vector<TracedFrame> next(std::chrono::milliseconds atMost);
    // Those that are left, at the end: no more are traced.
    std::vector<TracedFrame> last();

    // As TracedFrames.
    void setFilter(std::string_view table) { m_frames.setFilter(table); }

    Counts counts();
    bool messagesWereLost() const { return m_watch.losses() != 0; }

private:
    void stop();

    std::string m_table;
    bool m_endsByItself = true;
    bool m_runs = false;
    nftables::TraceWatch m_watch;
    nftables::Connection m_owner;   // the table is as old as its socket
    nftables::Connection m_counter; // reads what the table has counted
    TracedFrames m_frames;
    Counts m_counts;
};

// What traces have left that were killed on a kernel that does not clear up by itself: takes it out and names it.
// Nothing where that may not be done.
std::vector<std::string> removeLeftTraces();

} // namespace moatctl
