#include "ovsdb/connection.hpp"

#include "ovsdb/error.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using ovsdb::Connection;
using ovsdb::ConnectionError;
using ovsdb::ForeignServerError;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::ThrowsMessage;

class OvsdbConnectionTest : public testing::Test
{
protected:
    ~OvsdbConnectionTest() override
    {
        closePeer();
        close(m_listener);
    }
    void listenOn(const std::string& path)
    {
        m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(m_listener, 5), 0);
    }
    std::unique_ptr<Connection> connected()
    {
        if (m_listener < 0)
            listenOn(m_path);
        auto connection = std::make_unique<Connection>(m_path);
        m_peer = accept(m_listener, nullptr, nullptr);
        return connection;
    }
    void closePeer()
    {
        if (m_peer >= 0)
            close(m_peer);
        m_peer = -1;
    }
    static auto connectTo(const std::string& path)
    {
        return [path] { const Connection connection(path); };
    }

    ScratchFolder m_scratch;
    std::string m_path = m_scratch.path("sock");
    int m_listener = -1;
    int m_peer = -1;
};

TEST_F(OvsdbConnectionTest, BytesGoBothWays)
{
    const auto connection = connected();
    EXPECT_EQ(connection->read(), "") << "nothing there yet";
    ASSERT_EQ(write(m_peer, "hello", 5), 5);
    EXPECT_EQ(connection->read(), "hello");
    EXPECT_EQ(connection->write("answer"), 6U);
    char answer[10];
    EXPECT_EQ(read(m_peer, answer, sizeof answer), 6);
    EXPECT_EQ(std::string(answer, 6), "answer");
}

TEST_F(OvsdbConnectionTest, APeerThatDoesNotReadIsNotWaitedFor)
{
    const auto connection = connected();
    const std::string block(1 << 20, 'x');
    std::size_t written = 0;
    std::size_t last = 1;
    while (last > 0 && written < 100 * block.size())
        written += last = connection->write(block);
    EXPECT_EQ(last, 0U);
    EXPECT_GT(written, 0U);
}

TEST_F(OvsdbConnectionTest, APeerThatGoesIsAnError)
{
    auto connection = connected();
    ASSERT_EQ(write(m_peer, "last", 4), 4);
    closePeer();
    EXPECT_EQ(connection->read(), "last");
    EXPECT_THAT([&] { connection->read(); }, ThrowsMessage<ConnectionError>("connection closed by the server"));
    EXPECT_THAT([&] { connection->write("x"); }, ThrowsMessage<ConnectionError>("connection lost: Broken pipe"));

    connection = connected();
    ASSERT_EQ(connection->write("unread"), 6U);
    closePeer();
    EXPECT_THAT([&] { connection->read(); },
                ThrowsMessage<ConnectionError>("connection lost: Connection reset by peer"));
}

TEST_F(OvsdbConnectionTest, NobodyThere)
{
    EXPECT_THAT(connectTo(m_path),
                ThrowsMessage<ConnectionError>("no configuration server at " + m_path + ": No such file or directory"));
    listenOn(m_path);
    close(m_listener);
    EXPECT_THAT(connectTo(m_path),
                ThrowsMessage<ConnectionError>("no configuration server at " + m_path + ": Connection refused"));
    m_scratch.write("file", "");
    EXPECT_THAT(connectTo(m_scratch.path("file")), ThrowsMessage<ConnectionError>(EndsWith("Connection refused")));
}

TEST_F(OvsdbConnectionTest, PathsThatNoSocketHas)
{
    EXPECT_THAT(connectTo(""), ThrowsMessage<ConnectionError>("socket path \"\": expected 1 to 107 bytes"));
    EXPECT_THAT(connectTo(std::string(108, 'x')), ThrowsMessage<ConnectionError>(EndsWith("expected 1 to 107 bytes")));
    EXPECT_THAT(connectTo(std::string(107, 'x')),
                ThrowsMessage<ConnectionError>(EndsWith("No such file or directory")));
}

TEST_F(OvsdbConnectionTest, WithoutADescriptor)
{
    listenOn(m_path);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(highest);
    const rlimit few{static_cast<rlim_t>(highest), before.rlim_max};
    // Nothing new happens without a descriptor: the sanitizer needs one where it meets a type for the first time.
    EXPECT_THAT(connectTo(m_path + "x"), ThrowsMessage<ConnectionError>(EndsWith("No such file or directory")));
    std::string reason;
    setrlimit(RLIMIT_NOFILE, &few);
    try {
        connectTo(m_path)();
    } catch (const ConnectionError& error) {
        reason = error.what();
    }
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(reason, "no socket: Too many open files");
    EXPECT_NO_THROW(connectTo(m_path)());
    const int after = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(after, highest) << "closed";
    close(after);
}

TEST_F(OvsdbConnectionTest, ASocketOfSomebodyElseIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can serve a socket as somebody else";
    chmod(m_scratch.path().c_str(), 0777);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t server = fork();
    if (server == 0) {
        if (setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0)
            listenOn(m_path);
        if (write(ready[1], "x", 1) == 1)
            pause();
        _exit(0);
    }
    char c = 0;
    EXPECT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_THAT(connectTo(m_path), ThrowsMessage<ForeignServerError>("socket " + m_path +
                                                                     " refused: it is served by user 65534, expected 0 "
                                                                     "or 0"));
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

} // namespace
