// What the kernel tells of frames that it traces: a message for each rule that such a frame matches, and for each
// policy that it meets.
#pragma once

#include "nftables/socket.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nftables
{

struct TraceEvent {
    enum class Kind { Rule, Return, Policy };
    enum class Verdict { Accept, Drop, GoesOn }; // of a rule or policy

    std::uint32_t id = 0; // the same for all of a frame; others may get it later
    Kind kind = Kind::Rule;
    Verdict verdict = Verdict::GoesOn;
    std::string table;
    std::string chain;
    std::uint64_t rule = 0; // its handle
    // Of the first message from a chain with a hook only.
    std::uint32_t in = 0; // interfaces by number; 0: none
    std::uint32_t out = 0;
    std::vector<std::uint8_t> link, network, transport; // the headers' first bytes
};

// Threading: one thread. No operation throws but std::bad_alloc.
class TraceWatch
{
public:
    TraceWatch() = default;
    ~TraceWatch();
    TraceWatch(const TraceWatch&) = delete;
    TraceWatch& operator=(const TraceWatch&) = delete;

    // 0 or an error (errno).
    int open();

    // Readable when there is a message; -1 unless opened.
    int descriptor() const { return m_descriptor; }

    // The next one of the bridge family; nothing when there is none now. Never waits.
    std::optional<TraceEvent> next();

    // How often messages were lost because they came faster than they were read.
    std::uint64_t losses() const { return m_losses; }

private:
    int m_descriptor = -1;
    std::uint64_t m_losses = 0;
};

// One message's content; nothing when it is none of the bridge family's. Any bytes are taken.
std::optional<TraceEvent> readTraceEvent(Bytes bytes);

} // namespace nftables
