// The way to the kernel: datagrams of netlink messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace nftables
{

using Bytes = std::span<const std::uint8_t>;

// What a connection speaks through. Errors are numbers of errno; no operation throws.
class Socket
{
public:
    virtual ~Socket() = default;

    // Sends all of it as one datagram. 0 or an error.
    virtual int send(Bytes datagram) = 0;

    struct Received {
        std::size_t size = 0;
        int error = 0; // EAGAIN: nothing came in time; ENOBUFS: something was lost
    };

    // One datagram. wait: false gives EAGAIN when there is none.
    virtual Received receive(std::span<std::uint8_t> into, bool wait) = 0;

    // Room for so many bytes of one datagram sent, and of answers waiting. As much of it as the kernel gives.
    virtual void makeRoom(std::size_t send, std::size_t receive) = 0;
};

// A socket of this process's network namespace; messages that do not come from the kernel are passed over. Nothing and
// a reason in error (errno) when there is none to be had.
std::unique_ptr<Socket> openSocket(int& error);

// How a connection gets its socket, and another one after an answer that was not understood.
using SocketOpener = std::function<std::unique_ptr<Socket>(int& error)>;

} // namespace nftables
