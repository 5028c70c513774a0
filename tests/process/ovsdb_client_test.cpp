// The blocking client against the real configuration server.
#include "ovsdb/client.hpp"

#include "schema/server/database.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using ovsdb::Client;
using ovsdb::ColumnValues;
using tessera::Value;

pid_t spawn(std::vector<std::string> words)
{
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", 1, 0);
    pid_t process = -1;
    if (posix_spawnp(&process, arguments[0], &quiet, nullptr, arguments.data(), environ) != 0)
        process = -1;
    posix_spawn_file_actions_destroy(&quiet);
    return process;
}

class OvsdbClientTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = "/tmp/moatkeeper-test-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
        const pid_t tool = spawn({"ovsdb-tool", "create", m_folder + "/db", MOATKEEPER_SCHEMA});
        if (tool < 0)
            GTEST_SKIP() << "ovsdb-tool is not installed";
        int status = 0;
        waitpid(tool, &status, 0);
        ASSERT_EQ(status, 0);
        m_server = spawn({"ovsdb-server", "--no-chdir", "--remote=punix:" + socketPath(),
                          "--unixctl=" + m_folder + "/ctl", m_folder + "/db"});
        ASSERT_GT(m_server, 0);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!reachable()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "ovsdb-server does not listen";
            std::this_thread::sleep_for(5ms);
        }
    }

    void TearDown() override
    {
        stopServer();
        std::filesystem::remove_all(m_folder);
    }

    void stopServer()
    {
        if (m_server <= 0)
            return;
        kill(m_server, SIGTERM);
        waitpid(m_server, nullptr, 0);
        m_server = -1;
    }

    bool reachable() const
    {
        try {
            const Client client(schema::serverDatabase(), options());
            return true;
        } catch (const ovsdb::ConnectionError&) {
            return false;
        }
    }

    std::string socketPath() const { return m_folder + "/sock"; }
    ovsdb::ClientOptions options() const { return {.socketPath = socketPath(), .timeout = 5000ms}; }

    static ovsdb::Json policy(std::int32_t id, const char* target = "DROP")
    {
        return ovsdb::insertRow(
            "MoatKeeperInputPolicy",
            {{"Id", Value(id)}, {"Interface", Value(std::string("eth0"))}, {"Policy", Value(std::string(target))}});
    }

    std::string m_folder;
    pid_t m_server = -1;
};

const ovsdb::Table& policies()
{
    return schema::serverDatabase().at("MoatKeeperInputPolicy");
}

TEST_F(OvsdbClientTest, InsertsReadsUpdatesDeletes)
{
    Client client(schema::serverDatabase(), options());
    EXPECT_EQ(client.schemaVersion(), "1.1.0");
    const auto inserted = client.transact({policy(9), policy(2)});
    ASSERT_TRUE(inserted.committed()) << inserted.errorText();
    ASSERT_TRUE(inserted.outcomes[0].uuid.has_value());

    auto state = client.read();
    ASSERT_EQ(state.rows("MoatKeeperInputPolicy").size(), 2U);
    EXPECT_EQ(state.rows("MoatKeeperInputPolicy")[0].values[0].getInteger(), 2);
    EXPECT_EQ(state.rows("MoatKeeperInputPolicy")[1].uuid, *inserted.outcomes[0].uuid);
    EXPECT_EQ(state.rows("MoatKeeperInputPolicy")[1].values[1].getInteger(), 1) << "Enabled is unset";

    const auto updated = client.transact({ovsdb::updateRows(
        "MoatKeeperInputPolicy", ovsdb::rowWithUuid(*inserted.outcomes[0].uuid), {{"Enabled", Value(0)}})});
    EXPECT_EQ(updated.outcomes[0].count, 1);
    state = client.read({"MoatKeeperInputPolicy"});
    EXPECT_EQ(state.rows("MoatKeeperInputPolicy")[1].values[1].getInteger(), 0);
    EXPECT_TRUE(
        client
            .transact({ovsdb::updateRows("MoatKeeperInputPolicy", ovsdb::rowWithUuid(*inserted.outcomes[0].uuid),
                                         {{"Enabled", std::nullopt}})})
            .committed());

    const auto deleted = client.transact({ovsdb::deleteRows("MoatKeeperInputPolicy", ovsdb::everyRow())});
    EXPECT_TRUE(deleted.committed()) << deleted.errorText();
    EXPECT_EQ(deleted.outcomes[0].count, 2);
    EXPECT_TRUE(client.read().rows("MoatKeeperInputPolicy").empty());
}

TEST_F(OvsdbClientTest, SaysWhichOperationFailed)
{
    Client client(schema::serverDatabase(), options());
    const auto result = client.transact({policy(1), policy(2, "REJECT"), policy(3)});
    EXPECT_FALSE(result.committed());
    EXPECT_EQ(result.failedOperation(), 1U);
    EXPECT_NE(result.errorText().find("constraint violation: REJECT is not one of the allowed values"),
              std::string::npos)
        << result.errorText();
    EXPECT_FALSE(result.outcomes[2].done);
    EXPECT_TRUE(client.read().rows("MoatKeeperInputPolicy").empty());
}

TEST_F(OvsdbClientTest, SaysWhyTheWholeFailed)
{
    Client client(schema::serverDatabase(), options());
    const auto result = client.transact({policy(1), policy(1)});
    EXPECT_FALSE(result.committed());
    EXPECT_FALSE(result.failedOperation().has_value());
    ASSERT_TRUE(result.commitFailed.has_value());
    EXPECT_NE(result.errorText().find("identical values"), std::string::npos) << result.errorText();
}

TEST_F(OvsdbClientTest, RefusesAChangeOfWhatHasChangedMeanwhile)
{
    Client client(schema::serverDatabase(), options());
    ASSERT_TRUE(client.transact({policy(1)}).committed());
    const ovsdb::Row row = client.read().rows("MoatKeeperInputPolicy")[0];
    const auto change = [&] {
        return client.transact({ovsdb::requireRow(policies(), row),
                                ovsdb::updateRows("MoatKeeperInputPolicy", ovsdb::rowWithUuid(row.uuid),
                                                  {{"Policy", Value(std::string("ACCEPT"))}})});
    };
    EXPECT_TRUE(change().committed());
    EXPECT_EQ(change().failedOperation(), 0U);
}

TEST_F(OvsdbClientTest, KeepsACopyWhileItChangesTheRowsItself)
{
    Client client(schema::serverDatabaseWithDevices(), options());
    const ovsdb::TableCache& copy = client.follow(client.tableNames());
    EXPECT_TRUE(copy.rows("MoatKeeperInputPolicy").empty());
    for (std::int32_t id = 1; id <= 5; ++id) {
        ASSERT_TRUE(client.transact({policy(id)}).committed());
        while (copy.rows("MoatKeeperInputPolicy").size() != static_cast<std::size_t>(id))
            ASSERT_TRUE(client.awaitChange(std::chrono::steady_clock::now() + 5s));
    }
    Client other(schema::serverDatabase(), options());
    ASSERT_TRUE(other.transact({policy(9)}).committed());
    while (copy.rows("MoatKeeperInputPolicy").size() != 6U)
        ASSERT_TRUE(client.awaitChange(std::chrono::steady_clock::now() + 5s));
    EXPECT_FALSE(client.awaitChange(std::chrono::steady_clock::now() + 20ms));
    stopServer();
    EXPECT_THROW(client.awaitChange(std::chrono::steady_clock::now() + 5s), ovsdb::ConnectionError);
}

TEST_F(OvsdbClientTest, CountsUpAndBeginsAgain)
{
    Client client(schema::serverDatabaseWithDevices(), options());
    const auto count = [&client] {
        return client.transact(ovsdb::countUp("MoatKeeperChange", "Number", 2'000'000'000)).outcomes.back().number;
    };
    EXPECT_EQ(count(), std::nullopt) << "there is no row";
    ASSERT_TRUE(
        client.transact({ovsdb::insertRow("MoatKeeperChange", {{"Number", Value(1'999'999'998)}})}).committed());
    EXPECT_EQ(count(), 1'999'999'999);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(count(), 1);
}

TEST_F(OvsdbClientTest, WatchesChanges)
{
    Client watcher(schema::serverDatabase(), options());
    Client writer(schema::serverDatabase(), options());
    std::vector<std::size_t> counts;
    watcher.watch({"MoatKeeperInputPolicy"}, [&](const ovsdb::TableCache& state, const std::set<std::string>& changed) {
        EXPECT_EQ(changed, std::set<std::string>{"MoatKeeperInputPolicy"});
        counts.push_back(state.rows("MoatKeeperInputPolicy").size());
        const auto next = static_cast<std::int32_t>(counts.size());
        EXPECT_TRUE(writer.transact({policy(next)}).committed());
        return counts.size() < 3;
    });
    EXPECT_EQ(counts, (std::vector<std::size_t>{0, 1, 2}));
    EXPECT_EQ(watcher.read().rows("MoatKeeperInputPolicy").size(), 3U) << "still good for other requests";
}

TEST_F(OvsdbClientTest, ARequestThatTheServerRefusesLeavesTheClientUsable)
{
    Client client(schema::serverDatabase(), options());
    EXPECT_FALSE(client.transact({ovsdb::deleteRows("Elsewhere", ovsdb::everyRow())}).committed());
    EXPECT_NO_THROW(client.read());
}

TEST_F(OvsdbClientTest, AServerThatGoesIsAnError)
{
    Client client(schema::serverDatabase(), options());
    stopServer();
    EXPECT_THROW(client.read(), ovsdb::ConnectionError);
    EXPECT_THROW(Client(schema::serverDatabase(), options()), ovsdb::ConnectionError);
}

TEST_F(OvsdbClientTest, AServerThatSaysNothingIsATimeout)
{
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder + "/mute";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    try {
        const Client client(schema::serverDatabase(), {.socketPath = path, .timeout = 50ms});
        ADD_FAILURE() << "connected";
    } catch (const ovsdb::TimeoutError& e) {
        EXPECT_STREQ(e.what(), "no answer from the configuration server within 50 ms");
    }
    close(listener);
}

} // namespace
