#include "nftables/trace_watch.hpp"

#include "nftables/attributes.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace nftables
{

namespace
{

constexpr std::uint16_t traceMessage = NFNL_SUBSYS_NFTABLES << 8U | NFT_MSG_TRACE;
constexpr int room = 32 << 20; // of the socket, for a burst

std::vector<std::uint8_t> bytesOf(const nlattr* attribute)
{
    const auto* const begin = static_cast<const std::uint8_t*>(mnl_attr_get_payload(attribute));
    return {begin, begin + mnl_attr_get_payload_len(attribute)};
}

TraceEvent::Verdict verdictOf(std::optional<std::uint32_t> code)
{
    if (code == std::uint32_t{NF_ACCEPT})
        return TraceEvent::Verdict::Accept;
    return code == std::uint32_t{NF_DROP} ? TraceEvent::Verdict::Drop : TraceEvent::Verdict::GoesOn;
}

void read(const nlattr* attribute, TraceEvent& event)
{
    switch (mnl_attr_get_type(attribute)) {
    case NFTA_TRACE_TABLE:
        event.table = textOf(attribute);
        break;
    case NFTA_TRACE_CHAIN:
        event.chain = textOf(attribute);
        break;
    case NFTA_TRACE_RULE_HANDLE:
        event.rule = longNumberOf(attribute).value_or(0);
        break;
    case NFTA_TRACE_TYPE: {
        const auto type = numberOf(attribute);
        event.kind = type == std::uint32_t{NFT_TRACETYPE_POLICY}   ? TraceEvent::Kind::Policy
                     : type == std::uint32_t{NFT_TRACETYPE_RETURN} ? TraceEvent::Kind::Return
                                                                   : TraceEvent::Kind::Rule;
        break;
    }
    case NFTA_TRACE_VERDICT:
        forEachNested(attribute, [&](const nlattr* part) {
            if (mnl_attr_get_type(part) == NFTA_VERDICT_CODE)
                event.verdict = verdictOf(numberOf(part));
        });
        break;
    case NFTA_TRACE_POLICY:
        event.verdict = verdictOf(numberOf(attribute));
        break;
    case NFTA_TRACE_ID:
        event.id = numberOf(attribute).value_or(0);
        break;
    case NFTA_TRACE_IIF:
        event.in = numberOf(attribute).value_or(0);
        break;
    case NFTA_TRACE_OIF:
        event.out = numberOf(attribute).value_or(0);
        break;
    case NFTA_TRACE_LL_HEADER:
        event.link = bytesOf(attribute);
        break;
    case NFTA_TRACE_NETWORK_HEADER:
        event.network = bytesOf(attribute);
        break;
    case NFTA_TRACE_TRANSPORT_HEADER:
        event.transport = bytesOf(attribute);
        break;
    default:
        break;
    }
}

} // namespace

TraceWatch::~TraceWatch()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
}

int TraceWatch::open()
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    constexpr int group = NFNLGRP_NFTRACE;
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        setsockopt(descriptor, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
        const int error = errno;
        if (descriptor >= 0)
            close(descriptor);
        return error;
    }
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    m_descriptor = descriptor;
    return 0;
}

std::optional<TraceEvent> TraceWatch::next()
{
    alignas(nlmsghdr) std::array<std::uint8_t, 8192> buffer;
    for (;;) {
        sockaddr_nl from{};
        socklen_t length = sizeof from;
        const ssize_t got =
            recvfrom(m_descriptor, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got < 0 && errno == ENOBUFS)
            ++m_losses;
        else if (got < 0 && errno != EINTR)
            return std::nullopt;
        if (got < 0 || from.nl_pid != 0)
            continue;
        if (auto event = readTraceEvent({buffer.data(), static_cast<std::size_t>(got)}))
            return event;
    }
}

std::optional<TraceEvent> readTraceEvent(Bytes bytes)
{
    const nlmsghdr* message = takeMessage(bytes);
    if (message == nullptr || message->nlmsg_type != traceMessage ||
        mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg) ||
        static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message))->nfgen_family != NFPROTO_BRIDGE)
        return std::nullopt;
    TraceEvent event;
    forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) { read(attribute, event); });
    return event;
}

} // namespace nftables
