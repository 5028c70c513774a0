// What a server of a cluster says of itself, whole or with its rows cut out ahead of their message.
#include "ovsdb/server_state.hpp"

#include "ovsdb/error.hpp"

#include <gtest/gtest.h>

namespace
{

class OvsdbServerStateTest : public testing::Test
{
protected:
    OvsdbServerStateTest()
    {
        m_state.begin(m_session);
        m_session.consumed(m_session.output().size());
    }
    // Whether all of it was about the server.
    bool take(const std::string& text)
    {
        bool taken = true;
        m_session.receive(text);
        while (const auto message = m_session.next())
            taken = m_state.take(*message) && taken;
        return taken;
    }
    static std::string tables(const std::string& model, bool connected, bool leader)
    {
        return R"({"Database": {"aaaaaaaa-0000-0000-0000-000000000001": {"new": {"name": "ours", "model": ")" + model +
               R"(", "connected": )" + (connected ? "true" : "false") + R"(, "leader": )" +
               (leader ? "true" : "false") + "}}}}";
    }
    static std::string answer(const std::string& result)
    {
        return R"({"id": 1, "error": null, "result": )" + result + "}";
    }
    static std::string update(const std::string& tables)
    {
        return R"({"id": null, "method": "update", "params": ["_Server", )" + tables + "]}";
    }

    ovsdb::RpcSession m_session;
    ovsdb::ServerState m_state;
};

TEST_F(OvsdbServerStateTest, OneThatLeadsLeadsUntilItSaysOtherwise)
{
    EXPECT_FALSE(m_state.known());
    EXPECT_TRUE(take(answer(tables("clustered", true, true))));
    EXPECT_TRUE(m_state.known());
    EXPECT_TRUE(m_state.leads("ours"));
    EXPECT_FALSE(m_state.leads("another"));
    for (const std::size_t depth : {std::size_t{0}, std::size_t{4}}) {
        m_session.splitRowsAt(depth);
        EXPECT_TRUE(take(update(tables("clustered", true, false))));
        EXPECT_FALSE(m_state.leads("ours"));
        EXPECT_TRUE(m_state.connected("ours"));
        EXPECT_TRUE(take(update(tables("clustered", false, false))));
        EXPECT_FALSE(m_state.connected("ours"));
        EXPECT_TRUE(take(update(tables("clustered", true, true))));
        EXPECT_TRUE(m_state.leads("ours"));
    }
}

TEST_F(OvsdbServerStateTest, OneOutsideAClusterLeadsWhileItIsConnected)
{
    take(answer(tables("relay", false, false)));
    EXPECT_FALSE(m_state.leads("ours"));
    take(update(tables("relay", true, false)));
    EXPECT_TRUE(m_state.leads("ours"));
    take(update(R"({"Database": {"aaaaaaaa-0000-0000-0000-000000000001": {"old": {}}}})"));
    EXPECT_FALSE(m_state.leads("ours"));
    EXPECT_FALSE(m_state.connected("ours"));
}

TEST_F(OvsdbServerStateTest, OtherMessagesAreForOthers)
{
    m_session.request("echo", ovsdb::Json::Array());
    EXPECT_FALSE(take(R"({"id": 2, "error": null, "result": []})"));
    EXPECT_FALSE(take(R"({"id": null, "method": "update", "params": ["ours", {}]})"));
    EXPECT_FALSE(take(R"({"id": null, "method": "update3", "params": ["_Server", {}, {}]})"));
    EXPECT_THROW(take(R"({"id": 1, "error": "unknown database", "result": null})"), ovsdb::ProtocolError);
}

} // namespace
