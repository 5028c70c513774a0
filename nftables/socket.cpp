#include "nftables/socket.hpp"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

namespace nftables
{

namespace
{

constexpr timeval patience{10, 0}; // the kernel answers at once

class KernelSocket : public Socket
{
public:
    explicit KernelSocket(int descriptor) : m_descriptor(descriptor) {}
    ~KernelSocket() override { close(m_descriptor); }
    KernelSocket(const KernelSocket&) = delete;
    KernelSocket& operator=(const KernelSocket&) = delete;

    int send(Bytes datagram) override
    {
        const ssize_t sent = ::send(m_descriptor, datagram.data(), datagram.size(), MSG_NOSIGNAL);
        if (sent < 0)
            return errno;
        return static_cast<std::size_t>(sent) == datagram.size() ? 0 : EMSGSIZE;
    }

    Received receive(std::span<std::uint8_t> into, bool wait) override
    {
        for (;;) {
            sockaddr_nl from{};
            iovec piece{into.data(), into.size()};
            msghdr message{};
            message.msg_name = &from;
            message.msg_namelen = sizeof from;
            message.msg_iov = &piece;
            message.msg_iovlen = 1;
            const ssize_t got = recvmsg(m_descriptor, &message, wait ? 0 : MSG_DONTWAIT);
            if (got < 0)
                return {0, errno};
            if (from.nl_pid != 0)
                continue;
            if ((message.msg_flags & MSG_TRUNC) != 0)
                return {0, EMSGSIZE};
            return {static_cast<std::size_t>(got), 0};
        }
    }

    void makeRoom(std::size_t send, std::size_t receive) override
    {
        enlarge(SO_SNDBUF, SO_SNDBUFFORCE, send, m_sendRoom);
        enlarge(SO_RCVBUF, SO_RCVBUFFORCE, receive, m_receiveRoom);
    }

private:
    void enlarge(int option, int forced, std::size_t wanted, std::size_t& room) const
    {
        if (wanted <= room)
            return;
        room = wanted;
        const int size = wanted > 1U << 30U ? 1 << 30 : static_cast<int>(wanted);
        if (setsockopt(m_descriptor, SOL_SOCKET, forced, &size, sizeof size) != 0)
            setsockopt(m_descriptor, SOL_SOCKET, option, &size, sizeof size);
    }

    int m_descriptor;
    std::size_t m_sendRoom = 0;
    std::size_t m_receiveRoom = 0;
};

} // namespace

std::unique_ptr<Socket> openSocket(int& error)
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
        error = errno;
        if (descriptor >= 0)
            close(descriptor);
        return nullptr;
    }
    // Errors come without the message that they are about, and with the kernel's words where it has some.
    const int on = 1;
    setsockopt(descriptor, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    setsockopt(descriptor, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    error = 0;
    return std::make_unique<KernelSocket>(descriptor);
}

} // namespace nftables
