#include "platform_linux/service_manager.hpp"

#include "platform/sysloglevel.h"
#include "tests/unit/captured_descriptor.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using zol::platform::ServiceManager;

// The service manager's end.
class Listener
{
public:
    explicit Listener(const std::string& address) : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path, address.data(), address.size());
        if (name.sun_path[0] == '@')
            name.sun_path[0] = '\0';
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&name), size), 0) << address;
    }
    ~Listener() { close(m_socket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // The next datagram; empty when there is none.
    std::string next() const
    {
        std::array<char, 1000> buffer;
        const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), 0);
        return {buffer.data(), static_cast<std::size_t>(count < 0 ? 0 : count)};
    }

private:
    int m_socket;
};

void tellsOnce(const std::string& address)
{
    const Listener listener(address);
    setenv("NOTIFY_SOCKET", address.c_str(), 1);
    ServiceManager manager = ServiceManager::fromEnvironment();
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr) << "children are not the service";
    EXPECT_TRUE(manager.waits());
    EXPECT_EQ(listener.next(), "");
    manager.isReady("all is\nwell");
    EXPECT_FALSE(manager.waits());
    EXPECT_EQ(listener.next(), "READY=1\nSTATUS=all is\\x0awell");
    manager.isReady("again");
    EXPECT_EQ(listener.next(), "");
}

TEST(ServiceManagerTest, TellsASocketWithAPath)
{
    const ScratchFolder folder;
    tellsOnce(folder.path("notify"));
}

TEST(ServiceManagerTest, TellsASocketWithAPathOfTheGreatestLength)
{
    const ScratchFolder folder;
    std::string path = folder.path("n");
    path.append(sizeof(sockaddr_un::sun_path) - 1 - path.size(), 'n');
    tellsOnce(path);
}

TEST(ServiceManagerTest, TellsAnAbstractSocket)
{
    tellsOnce("@moatkeeper-test/" + std::to_string(getpid()));
}

TEST(ServiceManagerTest, WithoutOneNobodyIsTold)
{
    unsetenv("NOTIFY_SOCKET");
    ServiceManager manager = ServiceManager::fromEnvironment();
    EXPECT_FALSE(manager.waits());
    manager.isReady("nobody hears it");
}

TEST(ServiceManagerTest, AnAddressOfAnotherKindIsTold)
{
    for (const std::string& wrong : {std::string("notify"), std::string("@"), std::string("vsock:2:1234"),
                                     '/' + std::string(sizeof(sockaddr_un::sun_path) - 1, 'a')}) {
        ZOL_Sysloglevel_set(0);
        const CapturedDescriptor log(STDERR_FILENO);
        setenv("NOTIFY_SOCKET", wrong.c_str(), 1);
        EXPECT_FALSE(ServiceManager::fromEnvironment().waits());
        EXPECT_NE(log.text().find("manager:10: NOTIFY_SOCKET=\""), std::string::npos) << wrong << log.text();
        EXPECT_NE(log.text().find("expected the path of a socket, or @ and a name, of at most 107 bytes"),
                  std::string::npos);
    }
}

TEST(ServiceManagerTest, OneThatIsGoneIsTold)
{
    ZOL_Sysloglevel_set(0);
    const CapturedDescriptor log(STDERR_FILENO);
    ServiceManager manager("/nowhere/at/all");
    manager.isReady("ready");
    EXPECT_NE(log.text().find("manager:20: the service manager at /nowhere/at/all cannot be told"), std::string::npos);
    EXPECT_FALSE(manager.waits());
}

} // namespace
