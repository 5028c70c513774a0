#include "nftables/generation_watch.hpp"

#include "nftables/attributes.hpp"

#include <linux/filter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace nftables
{

namespace
{

constexpr int group = NFNLGRP_NFTABLES;
constexpr std::uint16_t newGeneration = NFNL_SUBSYS_NFTABLES << 8U | NFT_MSG_NEWGEN;

int letGenerationsThrough(int descriptor)
{
    // The filter reads in network order, the type is in ours.
    std::array<sock_filter, 4> program{{
        {BPF_LD | BPF_H | BPF_ABS, 0, 0, offsetof(nlmsghdr, nlmsg_type)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, htons(newGeneration)},
        {BPF_RET | BPF_K, 0, 0, 0xffffffffU},
        {BPF_RET | BPF_K, 0, 0, 0},
    }};
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

} // namespace

GenerationWatch::~GenerationWatch()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
}

int GenerationWatch::open()
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_NETFILTER);
    if (descriptor < 0)
        return errno;
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (letGenerationsThrough(descriptor) != 0 ||
        bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const int error = errno;
        close(descriptor);
        return error;
    }
    m_descriptor = descriptor;
    listen(true);
    return m_isListening ? 0 : errno;
}

std::optional<GenerationChange> GenerationWatch::next()
{
    alignas(nlmsghdr) std::array<std::uint8_t, 8192> buffer;
    for (;;) {
        sockaddr_nl from{};
        socklen_t length = sizeof from;
        const ssize_t got =
            recvfrom(m_descriptor, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            if (errno != ENOBUFS)
                return std::nullopt;
            GenerationChange lost;
            lost.lost = true;
            return lost;
        }
        if (from.nl_pid != 0)
            continue;
        if (auto change = readGenerationChange(buffer.data(), static_cast<std::size_t>(got)))
            return change;
    }
}

void GenerationWatch::listen(bool on)
{
    const int option = on ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP;
    if (m_descriptor >= 0 && setsockopt(m_descriptor, SOL_NETLINK, option, &group, sizeof group) == 0)
        m_isListening = on;
}

std::optional<GenerationChange> readGenerationChange(const void* bytes, std::size_t size)
{
    Bytes left(static_cast<const std::uint8_t*>(bytes), size);
    const nlmsghdr* message = takeMessage(left);
    if (message == nullptr || message->nlmsg_type != newGeneration ||
        mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg))
        return std::nullopt;
    GenerationChange change;
    forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) {
        switch (mnl_attr_get_type(attribute)) {
        case NFTA_GEN_ID:
            change.generation = numberOf(attribute).value_or(0);
            break;
        case NFTA_GEN_PROC_PID:
            change.process = numberOf(attribute).value_or(0);
            break;
        case NFTA_GEN_PROC_NAME:
            change.program = textOf(attribute);
            break;
        default:
            break;
        }
    });
    return change;
}

} // namespace nftables
