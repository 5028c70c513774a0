// Loaded into a device's relay before its own libraries, by LD_PRELOAD: a central server that is gone without a word is
// left after GIVEN_UP_AFTER. By itself the relay asks after 5 s and waits 5 s for the answer, which cannot be set.
//
// Whatever cannot be done here is left out: the relay then goes on as it would alone.

#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace
{

using Connect = int (*)(int, const sockaddr*, socklen_t);

constexpr int ASKED_AFTER = 2;       // seconds of silence; the kernel asks, the server's kernel answers
constexpr int ASKED_AGAIN_AFTER = 1; // seconds without an answer
// Milliseconds, also of data that is not acknowledged. Before the relay asks itself: the kernel does not ask while it
// waits for an acknowledgement, and begins to wait anew.
constexpr int GIVEN_UP_AFTER = 4 * 1000;

void giveUpWhenSilent(int handle)
{
    const auto set = [handle](int level, int option, int value) {
        ::setsockopt(handle, level, option, &value, sizeof value);
    };
    set(IPPROTO_TCP, TCP_KEEPIDLE, ASKED_AFTER);
    set(IPPROTO_TCP, TCP_KEEPINTVL, ASKED_AGAIN_AFTER);
    set(IPPROTO_TCP, TCP_USER_TIMEOUT, GIVEN_UP_AFTER);
    set(SOL_SOCKET, SO_KEEPALIVE, 1);
}

} // namespace

// In the place of the C library's, for each connection that the relay makes.
extern "C" [[gnu::visibility("default")]] int connect(int handle, const sockaddr* address, socklen_t length)
{
    static const auto next = reinterpret_cast<Connect>(::dlsym(RTLD_NEXT, "connect"));
    if (address != nullptr && (address->sa_family == AF_INET || address->sa_family == AF_INET6))
        giveUpWhenSilent(handle);
    return next(handle, address, length);
}
