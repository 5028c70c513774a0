// What is asked of a server, newer or older, what is made of its answers, and what it must not say.
#include "ovsdb/subscription.hpp"

#include "ovsdb/error.hpp"
#include "schema/server/database.hpp"
#include "text/small_file.hpp"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

namespace
{

using ovsdb::Json;
using ovsdb::parseJson;
using ovsdb::ProtocolError;
using ovsdb::RpcSession;
using ovsdb::SchemaError;
using ovsdb::Subscription;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

const std::string policies = "MoatKeeperInputPolicy";
const std::string row = R"({"Id": 7, "Enabled": 1, "Interface": "eth0", "Policy": "DROP", "EnableLogging": 0})";
const std::string uuid = "aaaaaaaa-0000-0000-0000-000000000001";
const std::string first = "11111111-1111-1111-1111-111111111111";
const std::string second = "22222222-2222-2222-2222-222222222222";
const std::string none = "00000000-0000-0000-0000-000000000000";

std::string rows(const std::string& change)
{
    return R"({")" + policies + R"(": {")" + uuid + R"(": )" + change + "}}";
}

class OvsdbSubscriptionTest : public testing::Test
{
protected:
    void begin()
    {
        m_session.emplace();
        m_subscription.begin(*m_session);
    }
    // The request that waits to be sent.
    Json asked()
    {
        Json request = parseJson(m_session->output());
        m_session->consumed(m_session->output().size());
        m_id = *request.find("id")->asInteger();
        return request;
    }
    std::string askedMethod() { return *asked().find("method")->asText(); }

    Subscription::Progress take(const std::string& message)
    {
        Subscription::Progress progress;
        m_session->receive(message);
        while (const auto received = m_session->next()) {
            EXPECT_FALSE(progress.synchronised || !progress.changedTables.empty()) << "before the message's end";
            progress = m_subscription.handle(*received, *m_session);
        }
        return progress;
    }
    Subscription::Progress answer(const std::string& result)
    {
        return take(R"({"id": )" + std::to_string(m_id) + R"(, "error": null, "result": )" + result + "}");
    }
    Subscription::Progress refuse()
    {
        return take(R"({"id": )" + std::to_string(m_id) + R"(, "result": null, "error": "unknown method"})");
    }
    Subscription::Progress notify(const std::string& method, const std::string& params)
    {
        return take(R"({"id": null, "method": ")" + method + R"(", "params": )" + params + "}");
    }
    void askForSchema()
    {
        begin();
        EXPECT_EQ(askedMethod(), "list_dbs");
        answer(R"(["_Server", "moatkeeper"])");
        EXPECT_EQ(askedMethod(), "get_schema");
    }
    void answerSchema()
    {
        askForSchema();
        std::ifstream file(MOATKEEPER_SCHEMA);
        EXPECT_FALSE(answer({std::istreambuf_iterator<char>(file), {}}).synchronised);
    }
    // Up to the first state, which is one row.
    void follow(int refusals = 0)
    {
        answerSchema();
        for (int i = 0; i < refusals; ++i) {
            asked();
            refuse();
        }
        asked();
        const std::string state = rows((refusals == 2 ? R"({"new": )" : R"({"initial": )") + row + "}");
        EXPECT_TRUE(answer(refusals == 0 ? R"([false, ")" + first + R"(", )" + state + "]" : state).synchronised);
    }
    std::size_t count() const { return m_subscription.tables().rows(policies).size(); }

    Subscription m_subscription{schema::serverDatabase(), {policies}};
    std::optional<RpcSession> m_session;
    std::int64_t m_id = 0;
};

TEST_F(OvsdbSubscriptionTest, AsksForItsTablesAfterTheSchema)
{
    answerSchema();
    EXPECT_EQ(m_subscription.schemaVersion(), "1.1.0");
    EXPECT_FALSE(m_subscription.synchronised());
    const Json request = asked();
    EXPECT_EQ(*request.find("method")->asText(), "monitor_cond_since");
    EXPECT_EQ(toText(*request.find("params")), R"(["moatkeeper","moatkeeper",{"MoatKeeperInputPolicy":[{"columns":)"
                                               R"(["Id","Enabled","Interface","Policy","EnableLogging"]}]},")" +
                                                   none + R"("])");
}

TEST_F(OvsdbSubscriptionTest, FollowsTheChanges)
{
    follow();
    EXPECT_TRUE(m_subscription.synchronised());
    EXPECT_EQ(count(), 1U);
    const auto progress =
        notify("update3", R"(["moatkeeper", ")" + second + R"(", )" + rows(R"({"delete": null})") + "]");
    EXPECT_FALSE(progress.synchronised);
    EXPECT_THAT(progress.changedTables, ElementsAre(policies));
    EXPECT_EQ(count(), 0U);
    EXPECT_THAT(notify("update3", R"(["moatkeeper", ")" + second + R"(", {}])").changedTables, IsEmpty());
}

TEST_F(OvsdbSubscriptionTest, ResumesWhereItWas)
{
    follow();
    notify("update3", R"(["moatkeeper", ")" + second + R"(", {}])");
    answerSchema(); // on the next connection
    EXPECT_FALSE(m_subscription.synchronised());
    EXPECT_EQ(count(), 1U) << "until the server has told its state";
    EXPECT_EQ(*asked().find("params")->asArray()->back().asText(), second);
    const auto progress = answer(R"([true, ")" + second + R"(", {}])");
    EXPECT_TRUE(progress.synchronised);
    EXPECT_THAT(progress.changedTables, IsEmpty());
    EXPECT_EQ(count(), 1U);
}

TEST_F(OvsdbSubscriptionTest, AServerThatDoesNotKnowTheTransactionTellsAll)
{
    follow();
    answerSchema();
    asked();
    EXPECT_THAT(answer(R"([false, ")" + second + R"(", {}])").changedTables, ElementsAre(policies));
    EXPECT_EQ(count(), 0U);
}

TEST_F(OvsdbSubscriptionTest, AnOlderServerIsAskedInItsOwnWay)
{
    follow(1);
    EXPECT_THAT(notify("update2", R"(["moatkeeper", )" + rows(R"({"modify": {"Id": 8}})") + "]").changedTables,
                ElementsAre(policies));
    answerSchema();
    EXPECT_EQ(askedMethod(), "monitor_cond_since") << "it may have been replaced by a newer one";
    refuse();
    EXPECT_EQ(askedMethod(), "monitor_cond");
    refuse();
    const Json request = asked();
    EXPECT_EQ(*request.find("method")->asText(), "monitor");
    EXPECT_NE((*request.find("params")->asArray())[2].find(policies)->asObject(), nullptr) << "no list in this one";
}

TEST_F(OvsdbSubscriptionTest, TheOldestServerTellsOldAndNewRows)
{
    follow(2);
    EXPECT_EQ(count(), 1U);
    EXPECT_THAT(notify("update", R"(["moatkeeper", )" + rows(R"({"old": )" + row + "}") + "]").changedTables,
                ElementsAre(policies));
    EXPECT_EQ(count(), 0U);
}

TEST_F(OvsdbSubscriptionTest, AServerThatRefusesEverythingIsNone)
{
    answerSchema();
    asked();
    refuse();
    asked();
    refuse();
    asked();
    EXPECT_THAT([&] { refuse(); }, ThrowsMessage<ProtocolError>(HasSubstr("subscription refused: unknown method")));
}

TEST_F(OvsdbSubscriptionTest, AServerWithoutTheDatabaseIsUnsuitable)
{
    askForSchema();
    EXPECT_THAT([&] { refuse(); },
                ThrowsMessage<SchemaError>(HasSubstr("has no database \"moatkeeper\" (unknown method)")));
    askForSchema();
    EXPECT_THROW(answer(R"({"name": "moatkeeper", "version": "1.0.0", "tables": {}})"), SchemaError);
}

TEST_F(OvsdbSubscriptionTest, TheDatabaseOfItsGroupIsTaken)
{
    begin();
    asked();
    answer(R"(["_Server", "moatkeeper_plant2", "moatkeepers", "other"])");
    EXPECT_EQ(toText(*asked().find("params")), R"(["moatkeeper_plant2"])");
    EXPECT_EQ(m_subscription.databaseName(), "moatkeeper_plant2");
    std::string schema = text::readSmallFile(MOATKEEPER_SCHEMA);
    answer(schema.replace(schema.find("\"moatkeeper\""), 12, "\"moatkeeper_plant2\""));
    const Json request = asked();
    EXPECT_EQ((*request.find("params")->asArray())[0], Json("moatkeeper_plant2"));
    EXPECT_EQ((*request.find("params")->asArray())[1], Json("moatkeeper_plant2"));
    answer("[false, \"" + first + "\", " + rows(R"({"initial": )" + row + "}") + "]");
    notify("update3", R"(["moatkeeper_plant2", ")" + second + R"(", )" + rows(R"({"delete": null})") + "]");
    EXPECT_EQ(count(), 0U);
}

TEST_F(OvsdbSubscriptionTest, NoneOrTwoDatabasesAreUnsuitable)
{
    const auto offered = [this](const std::string& names) {
        return [this, names] {
            begin();
            asked();
            answer(names);
        };
    };
    EXPECT_THAT(offered(R"(["_Server"])"),
                ThrowsMessage<SchemaError>("the server has no database \"moatkeeper\", it has none"));
    EXPECT_THAT(offered(R"(["_Server", "a", "b\n"])"),
                ThrowsMessage<SchemaError>("the server has no database \"moatkeeper\", it has \"a\", \"b\\x0a\""));
    EXPECT_THAT(offered(R"(["moatkeeper", "_Server", "moatkeeper_a"])"),
                ThrowsMessage<SchemaError>(
                    "the server has several databases, expected one of \"moatkeeper\", \"moatkeeper_a\""));
    for (const char* const wrong : {"{}", "null", "[1]", "\"moatkeeper\""})
        EXPECT_THROW(offered(wrong)(), ProtocolError) << wrong;
}

TEST_F(OvsdbSubscriptionTest, AServerThatListsNoDatabasesIsAskedForOurs)
{
    begin();
    asked();
    refuse();
    EXPECT_EQ(toText(*asked().find("params")), R"(["moatkeeper"])");
}

TEST_F(OvsdbSubscriptionTest, AnswersOfAnotherShapeAreRefused)
{
    for (const std::string& result :
         {std::string("{}"), std::string("null"), std::string("[]"), R"([false, ")" + first + R"("])",
          R"(["no", ")" + first + R"(", {}])", std::string(R"([false, 5, {}])"),
          std::string(R"([false, "no uuid", {}])"), R"([false, ")" + first + R"(", [], {}])",
          R"([false, ")" + first + R"(", []])", R"([false, ")" + first + R"(", {"Elsewhere": {}}])"}) {
        answerSchema();
        asked();
        EXPECT_THROW(answer(result), ProtocolError) << result;
        EXPECT_FALSE(m_subscription.synchronised());
    }
}

TEST_F(OvsdbSubscriptionTest, NotificationsOfAnotherShapeAreRefusedAndChangeNothing)
{
    const std::string gone = rows(R"({"delete": null})");
    const std::pair<std::string, std::string> cases[] = {
        {"update", R"(["moatkeeper", )" + gone + "]"},
        {"update2", R"(["moatkeeper", )" + gone + "]"},
        {"locked", R"(["moatkeeper"])"},
        {"update3", R"(["moatkeeper", )" + gone + "]"},
        {"update3", R"(["another", ")" + second + R"(", )" + gone + "]"},
        {"update3", R"([7, ")" + second + R"(", )" + gone + "]"},
        {"update3", R"(["moatkeeper", 7, )" + gone + "]"},
        {"update3", R"(["moatkeeper", "no uuid", )" + gone + "]"},
        {"update3", R"(["moatkeeper", ")" + second + R"(", "no tables"])"},
        {"update3", "[]"},
    };
    for (const auto& [method, params] : cases) {
        follow();
        EXPECT_THROW(notify(method, params), ProtocolError) << method << params;
        EXPECT_EQ(count(), 1U) << method << params;
    }
    follow(1);
    EXPECT_THROW(notify("update3", R"(["moatkeeper", ")" + second + R"(", )" + gone + "]"), ProtocolError);
    EXPECT_THROW(notify("update2", R"(["moatkeeper", )" + gone + ", 1]"), ProtocolError);
}

std::string otherUuid(int number)
{
    return uuid.substr(0, 30) + std::to_string(100'000 + number);
}

std::string policy(int id)
{
    return R"({"initial": {"Id": )" + std::to_string(id) + R"(, "Interface": "eth0", "Policy": "DROP"}})";
}

TEST_F(OvsdbSubscriptionTest, RowsAreTakenInAsTheyCome)
{
    answerSchema();
    asked();
    m_session->receive(R"({"error": null, "result": [false, ")" + first + R"(", {")" + policies + R"(": {)");
    for (int i = 0; i < 100; ++i) {
        m_session->receive((i > 0 ? ", \"" : "\"") + otherUuid(i) + "\": " + policy(100 - i));
        while (const auto part = m_session->next())
            EXPECT_FALSE(m_subscription.handle(*part, *m_session).synchronised);
        EXPECT_EQ(count(), 0U) << "the message is not complete";
    }
    EXPECT_TRUE(take(R"(}}], "id": )" + std::to_string(m_id) + "}").synchronised);
    ASSERT_EQ(count(), 100U);
    EXPECT_EQ(m_subscription.tables().rows(policies)[0].values[0].getInteger(), 1);
}

TEST_F(OvsdbSubscriptionTest, AMessageThatIsCutOffIsForgotten)
{
    follow();
    m_session->receive(R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" +
                       policies + R"(": {")" + otherUuid(1) + R"(": {"insert": {"Id": 8}}, )");
    while (const auto part = m_session->next())
        m_subscription.handle(*part, *m_session);
    m_subscription.end();
    EXPECT_EQ(count(), 1U);
    follow();
    EXPECT_EQ(count(), 1U);
}

TEST_F(OvsdbSubscriptionTest, RowsWithoutEndAreRefused)
{
    Subscription subscription(schema::serverDatabase(), {policies}, 100'000);
    RpcSession session;
    subscription.begin(session);
    session.receive(R"({"id": 1, "result": ["moatkeeper"]})");
    subscription.handle(*session.next(), session);
    std::ifstream file(MOATKEEPER_SCHEMA);
    session.receive(R"({"id": 2, "result": )" + std::string(std::istreambuf_iterator<char>(file), {}) + "}");
    subscription.handle(*session.next(), session);
    session.receive(R"({"id": 3, "result": [false, ")" + first + R"(", {")" + policies + R"(": {)");
    int rowsTaken = 0;
    const auto feed = [&] {
        for (;; ++rowsTaken) {
            session.receive('"' + otherUuid(rowsTaken) + "\": " + policy(rowsTaken) + ",");
            while (const auto part = session.next())
                subscription.handle(*part, session);
        }
    };
    EXPECT_THAT(feed, ThrowsMessage<ProtocolError>(HasSubstr("rows of more than 100000 bytes")));
    EXPECT_GT(rowsTaken, 200);
    EXPECT_LT(rowsTaken, 2000); // a row takes less where an address has 32 bits
}

TEST_F(OvsdbSubscriptionTest, RowsInAnotherPlaceAreRefused)
{
    const std::string row2 = R"({")" + otherUuid(2) + R"(": {"insert": {"Id": 8}}})";
    for (const std::string& message : {
             // in a member that means nothing, in another param, in a list
             R"({"x": {"y": {")" + policies + R"(": )" + row2 + R"(}}, "id": null, "method": "update3",
                "params": ["moatkeeper", ")" +
                 second + R"(", {}]})",
             R"({"id": null, "method": "update3", "params": ["moatkeeper", {")" + policies + R"(": )" + row2 +
                 R"(}, {}]})",
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", [")" + policies +
                 R"(", )" + row2 + "]]}",
             // twice, once empty, once not
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" + policies +
                 R"(": {}, ")" + policies + R"(": )" + row2 + "}]}",
             // a number of rows of the peer's own
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" + policies +
                 R"(": {"": 0}}]})",
             // what is no row
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" + policies +
                 R"(": {,}}]})",
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" + policies +
                 R"(": {")" + uuid + R"(": {"delete": null},}}]})",
             R"({"id": null, "method": "update3", "params": ["moatkeeper", ")" + second + R"(", {")" + policies +
                 R"(": {")" + uuid + R"(": {"delete": null}]}]})",
         }) {
        follow();
        EXPECT_THROW(take(message), ProtocolError) << message;
        EXPECT_EQ(count(), 1U) << message;
        m_subscription.end();
    }
}

TEST_F(OvsdbSubscriptionTest, NothingIsToldBeforeTheAnswer)
{
    answerSchema();
    EXPECT_THROW(notify("update3", R"(["moatkeeper", ")" + second + R"(", {}])"), ProtocolError);
    begin();
    EXPECT_THROW(notify("update3", R"(["moatkeeper", ")" + second + R"(", {}])"), ProtocolError);
}

TEST_F(OvsdbSubscriptionTest, TheAnswerToAnEarlierQuestionIsRefused)
{
    begin();
    m_session->request("echo", Json::Array());
    EXPECT_THAT([&] { take(R"({"id": 2, "result": [], "error": null})"); },
                ThrowsMessage<ProtocolError>(HasSubstr("a request that was not made: id 2")));
}

} // namespace
