#include "moatctl/bridge/tracer.hpp"

#include "moatctl/exit_status.hpp"
#include "nftables/trace_table.hpp"
#include "text/small_file.hpp"

#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace moatctl
{

namespace
{

constexpr std::string_view tablePrefix = "moatctl_trace_"; // and the number of the process
constexpr std::chrono::seconds enoughTime{1};              // for all messages of one frame

[[noreturn]] void giveUp(const std::string& reason)
{
    throw Failure(ExitStatus::Kernel, "the kernel cannot be made to trace frames: " + reason);
}

// Whether a trace of that process may still want it.
bool isLeft(const nftables::TableView& table)
{
    if (!table.name.starts_with(tablePrefix) || table.isOwned)
        return false;
    const std::string process = table.name.substr(tablePrefix.size());
    const bool isNumber = !process.empty() && process.find_first_not_of("0123456789") == std::string::npos;
    return isNumber && text::readSmallFile("/proc/" + process + "/comm") != "moatctl\n";
}

} // namespace

Tracer::Tracer(const TraceChoice& choice)
    : m_table(std::string(tablePrefix) + std::to_string(getpid())), m_frames(m_table)
{
    removeLeftTraces();
    if (const int error = m_watch.open(); error != 0)
        giveUp(std::strerror(error));
    const nftables::TraceSelection selection{choice.rule, choice.toDevice, choice.forwarded, choice.limit};
    nftables::Result result = nftables::addTraceTable(m_owner, m_table, selection, false);
    if (result.answer == nftables::Answer::Unsupported) {
        m_endsByItself = false;
        result = nftables::addTraceTable(m_owner, m_table, selection, true);
    }
    if (result.answer != nftables::Answer::Done)
        giveUp(result.reason);
    m_runs = true;
}

Tracer::~Tracer()
{
    stop();
}

void Tracer::stop()
{
    if (m_runs)
        nftables::removeTable(m_owner, m_table);
    m_runs = false;
}

std::vector<TracedFrame> Tracer::next(std::chrono::milliseconds atMost)
{
    std::vector<TracedFrame> frames;
    pollfd waiting{m_watch.descriptor(), POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(atMost.count()));
    const auto now = std::chrono::steady_clock::now();
    // No more at once than somebody who reads them would be shown late.
    for (int messages = 0; messages < 1000; ++messages) {
        const auto event = m_watch.next();
        if (!event)
            break;
        m_frames.take(*event, now, frames);
    }
    m_frames.settle(now - enoughTime, messagesWereLost(), frames);
    return frames;
}

std::vector<TracedFrame> Tracer::last()
{
    counts();
    stop();
    std::vector<TracedFrame> frames;
    const auto now = std::chrono::steady_clock::now();
    while (const auto event = m_watch.next())
        m_frames.take(*event, now, frames);
    m_frames.settle(now + enoughTime, messagesWereLost(), frames);
    return frames;
}

Tracer::Counts Tracer::counts()
{
    nftables::TraceCounts counts;
    if (m_runs && nftables::readTraceCounts(m_counter, m_table, counts).answer == nftables::Answer::Done)
        m_counts = {counts.selected, counts.selected - counts.traced};
    return m_counts;
}

std::vector<std::string> removeLeftTraces()
{
    nftables::Connection connection;
    std::vector<nftables::TableView> tables;
    std::vector<std::string> removed;
    if (nftables::readTables(connection, tables).answer != nftables::Answer::Done)
        return removed;
    for (const nftables::TableView& table : tables) {
        if (isLeft(table) && nftables::removeTable(connection, table.name).answer == nftables::Answer::Done)
            removed.push_back(table.name);
    }
    return removed;
}

} // namespace moatctl
