// What the service manager that started us, if one did, is told: that the start is done.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zol::platform
{

// The other end of the notification protocol: one datagram a message, to the socket that the environment names.
class ServiceManager
{
public:
    // The environment's NOTIFY_SOCKET: the path of a socket, or "@name" for one in the abstract namespace. The variable
    // is removed, so that no child takes itself for us. An address that is neither is told in the log, and nobody is
    // told anything.
    static ServiceManager fromEnvironment();

    // Empty: there is none.
    explicit ServiceManager(std::string address = {}) : m_address(std::move(address)) {}

    // Whether somebody waits for isReady.
    bool waits() const { return !m_address.empty() && !m_toldReady; }

    // The start is done; status: one line for the person who asks how we are. Told once.
    void isReady(std::string_view status);

    // Why an address cannot be one; nothing when it can.
    static std::optional<std::string> whyNot(std::string_view address);

private:
    void send(const std::string& message) const;

    std::string m_address;
    bool m_toldReady = false;
};

} // namespace zol::platform
