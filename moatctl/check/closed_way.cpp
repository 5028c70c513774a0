#include "moatctl/check/closed_way.hpp"

#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/walk.hpp"

#include <algorithm>

namespace moatctl
{

namespace
{

std::string stationOf(const Frame& frame)
{
    const std::string where = toText(*frame.source) + " on port " + frame.in;
    if (frame.ip4Source)
        return toText(*frame.ip4Source) + " from " + where;
    return frame.ip6Source ? toText(*frame.ip6Source) + " from " + where : where;
}

// Who drops it, as the subject of a sentence.
std::string dropperOf(const Applied& applied, const Step& last)
{
    const Row* row = applied.rowOf(last.origin());
    const std::string name = row != nullptr ? nameOf(*row) : "the daemon's own";
    if (last.rule != nullptr)
        return name + " (rule " + std::to_string(last.position + 1) + " of " + last.chain->name + ")";
    return "no rule decides, and the policy of " + last.chain->name + ", " + name + ",";
}

const char* whatIsDropped(const ConnectionFrame& frame)
{
    if (frame.purpose == ConnectionFrame::Purpose::Data)
        return " drops its frames";
    return *frame.frame.type == ethertype::arp ? " drops its ARP, without which it ends within minutes"
                                               : " drops its neighbour discovery, without which it ends within minutes";
}

} // namespace

std::optional<std::string> closedWay(const std::vector<ConnectionFrame>& frames, const Configuration& before,
                                     const Configuration& after)
{
    if (frames.empty())
        return std::nullopt;
    const Expected expected = expectedOf(after);
    const Applied applied = apply(expected);
    std::optional<Applied> old; // found out when it is asked for
    for (const ConnectionFrame& frame : frames) {
        const Walk walked = walk(applied.table, frame.frame);
        if (walked.fate != Fate::Drop)
            continue;
        if (!old)
            old = apply(expectedOf(before));
        if (walk(old->table, frame.frame).fate != Fate::Drop)
            return stationOf(frame.frame) + ": " + dropperOf(applied, walked.steps.back()) + whatIsDropped(frame);
    }
    return std::nullopt;
}

} // namespace moatctl
