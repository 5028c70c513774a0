#include "ovsdb/rpc_session.hpp"

#include <gtest/gtest.h>

namespace
{

using ovsdb::Json;
using ovsdb::ProtocolError;
using ovsdb::RpcSession;

TEST(OvsdbRpcSessionTest, AsksAndTakesTheAnswer)
{
    RpcSession session;
    EXPECT_FALSE(session.waiting());
    const auto id = session.request("get_schema", Json::Array{Json("x")});
    EXPECT_EQ(session.output(), R"({"method":"get_schema","params":["x"],"id":1})");
    session.consumed(session.output().size());
    EXPECT_TRUE(session.waiting());
    session.receive(R"({"id":1,"result":[5],"error":null})");
    const auto answer = session.next();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->id, id);
    EXPECT_TRUE(answer->method.empty());
    EXPECT_EQ(answer->result, ovsdb::parseJson("[5]"));
    EXPECT_FALSE(answer->error.has_value());
    EXPECT_FALSE(session.waiting());
    EXPECT_FALSE(session.next().has_value());
}

TEST(OvsdbRpcSessionTest, ALargeRequestTakesNoMemoryOnceItIsSent)
{
    RpcSession session;
    session.request("transact", Json::Array{Json(std::string(1'000'000, 'x'))});
    session.consumed(session.output().size() - 10);
    EXPECT_EQ(session.output().size(), 10U);
    session.consumed(10);
    EXPECT_LT(session.output().capacity(), 100U);
}

TEST(OvsdbRpcSessionTest, AnErrorIsOneLine)
{
    RpcSession session;
    session.request("x", Json::Array());
    session.receive(R"({"id":1,"result":null,"error":{"error":"unknown database","details":"a\nb"}})");
    EXPECT_EQ(session.next()->error, R"(unknown database: a\x0ab)");
}

TEST(OvsdbRpcSessionTest, NotificationsAndEchoBetweenThem)
{
    RpcSession session;
    session.receive(R"({"id":"echo","method":"echo","params":[1]}{"id":null,"method":"update","params":["m",{}]})");
    const auto message = session.next();
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->method, "update");
    EXPECT_EQ(session.output(), R"({"id":"echo","result":[1],"error":null})");
}

const char* const refusedMessages[] = {
    R"({})",
    R"({"id":2,"result":1})",
    R"({"id":"1","result":1})",
    R"({"id":1})",
    R"({"id":1.0,"result":1})",
    R"({"result":1,"error":null})",
    R"({"id":7,"method":"transact","params":[]})",
    R"({"method":"update","id":null})",
    R"({"method":"update","id":null,"params":{}})",
    R"({"method":5,"id":null,"params":[]})",
    R"({"id":1,"id":1,"result":1})",
    R"({"id":1,"result":})",
};

TEST(OvsdbRpcSessionTest, ARefusedMessageEndsTheSession)
{
    for (const char* message : refusedMessages) {
        RpcSession session;
        session.request("x", Json::Array());
        session.receive(message);
        EXPECT_THROW(session.next(), ProtocolError) << message;
    }
}

TEST(OvsdbRpcSessionTest, AnAnswerTwiceIsRefused)
{
    RpcSession session;
    session.request("x", Json::Array());
    session.receive(R"({"id":1,"result":1}{"id":1,"result":1})");
    EXPECT_TRUE(session.next().has_value());
    EXPECT_THROW(session.next(), ProtocolError);
}

TEST(OvsdbRpcSessionTest, EchoesThatNobodyReadsEnd)
{
    RpcSession session;
    const std::string echo = R"({"id":1,"method":"echo","params":[")" + std::string(60'000, 'x') + "\"]}";
    const auto feed = [&] {
        for (int i = 0; i < 100; ++i) {
            session.receive(echo);
            session.next();
        }
    };
    EXPECT_THROW(feed(), ProtocolError);
    EXPECT_LT(session.output().size(), 2U * 1024 * 1024);
}

} // namespace
