#include "platform_linux/service_manager.hpp"

#include "platform/sysloglevel.h"
#include "text/one_line.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace zol::platform
{

namespace
{

constexpr const char* managerLabel = "manager";
constexpr const char* variable = "NOTIFY_SOCKET";

void warn(int line, const std::string& text)
{
    ZOL_Sysloglevel_warning(ZOL_Sysloglevel_registerModul("moatkeeper"), managerLabel, line, text);
}

} // namespace

std::optional<std::string> ServiceManager::whyNot(std::string_view address)
{
    const bool isPath = address.starts_with('/');
    const bool isAbstract = address.starts_with('@') && address.size() > 1;
    // The kernel takes a path of the whole length, but not every program would find its end.
    if ((isPath || isAbstract) && address.size() < sizeof(sockaddr_un::sun_path))
        return std::nullopt;
    return "expected the path of a socket, or @ and a name, of at most " +
           std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
}

ServiceManager ServiceManager::fromEnvironment()
{
    const char* value = std::getenv(variable);
    std::string address = value != nullptr ? value : "";
    unsetenv(variable);
    if (address.empty())
        return ServiceManager();
    if (const auto reason = whyNot(address)) {
        warn(10, std::string(variable) + '=' + text::inQuotes(address) + ": " + *reason +
                     ". The service manager is not told anything");
        return ServiceManager();
    }
    return ServiceManager(std::move(address));
}

void ServiceManager::isReady(std::string_view status)
{
    if (!waits())
        return;
    m_toldReady = true;
    send("READY=1\nSTATUS=" + text::oneLine(status));
}

void ServiceManager::send(const std::string& message) const
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_address.data(), m_address.size());
    // An abstract name begins with a zero byte and ends where the length says.
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());

    // While the whole machine starts there may be a queue: worth a wait, but not for ever.
    const timeval patience{.tv_sec = 5, .tv_usec = 0};
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool sent = descriptor >= 0 &&
                      setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0 &&
                      sendto(descriptor, message.data(), message.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), size) >= 0;
    if (!sent)
        warn(20,
             "the service manager at " + m_address + " cannot be told that the start is done: " + std::strerror(errno));
    if (descriptor >= 0)
        close(descriptor);
}

} // namespace zol::platform
