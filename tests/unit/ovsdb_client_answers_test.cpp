// The blocking client and peers that answer as no configuration server does.
#include "ovsdb/client.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/message_framer.hpp"
#include "schema/server/database.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace
{

using ovsdb::Client;
using ovsdb::Json;
using ovsdb::ProtocolError;
using ovsdb::SchemaError;
using testing::HasSubstr;
using testing::ThrowsMessage;

const std::string policies = "MoatKeeperInputPolicy";

std::string schema()
{
    std::ifstream file(MOATKEEPER_SCHEMA);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Answers one request after the other on one connection: each answer is the text behind the id, or a whole message.
class Peer
{
public:
    Peer(const std::string& path, std::vector<std::string> answers) : m_answers(std::move(answers))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(m_listener, 5), 0);
        m_thread = std::thread([this] { serve(); });
    }
    ~Peer()
    {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

private:
    void serve() const
    {
        const int connection = accept(m_listener, nullptr, nullptr);
        if (connection < 0)
            return;
        ovsdb::MessageFramer framer;
        int id = 0;
        for (const std::string& answer : m_answers) {
            char buffer[4096];
            while (!framer.next()) {
                const ssize_t count = read(connection, buffer, sizeof buffer);
                if (count <= 0) {
                    close(connection);
                    return;
                }
                framer.append({buffer, static_cast<std::size_t>(count)});
            }
            ++id;
            const std::string message =
                answer.starts_with('{') ? answer : R"({"id": )" + std::to_string(id) + ", " + answer + "}";
            if (send(connection, message.data(), message.size(), MSG_NOSIGNAL) < 0)
                break;
        }
        char rest[4096];
        while (read(connection, rest, sizeof rest) > 0) { // until the client goes
        }
        close(connection);
    }

    std::vector<std::string> m_answers;
    int m_listener = -1;
    std::thread m_thread;
};

std::string result(const std::string& json)
{
    return R"("error": null, "result": )" + json;
}

const std::string databases = result(R"(["_Server", "moatkeeper"])");

// Does something with a client that was shown the right schema, and these answers to its next requests.
void ask(std::vector<std::string> answers, const std::function<void(Client&)>& what)
{
    const ScratchFolder scratch;
    answers.insert(answers.begin(), {databases, result(schema())});
    const Peer peer(scratch.path("sock"), std::move(answers));
    Client client(schema::serverDatabase(), {.socketPath = scratch.path("sock"), .timeout = std::chrono::seconds(10)});
    what(client);
}

auto reading(const std::vector<std::string>& answers)
{
    return [answers] { ask(answers, [](Client& client) { client.read({policies}); }); };
}

auto changing(const std::string& answer)
{
    return [answer] {
        ask({answer}, [](Client& client) { client.transact({ovsdb::deleteRows(policies, ovsdb::everyRow())}); });
    };
}

const std::string transaction = "\"aaaaaaaa-0000-0000-0000-000000000009\"";

TEST(OvsdbClientAnswersTest, RowsAreTaken)
{
    ask({result("[false, " + transaction +
                R"(, {"MoatKeeperInputPolicy": {"aaaaaaaa-0000-0000-0000-000000000001": {"initial":
                {"Id": 1, "Interface": "eth0", "Policy": "DROP"}}}}])")},
        [](Client& client) { EXPECT_EQ(client.read({policies}).rows(policies).size(), 1U); });
}

TEST(OvsdbClientAnswersTest, WhatIsNoSchema)
{
    const auto connecting = [](const std::string& answer) {
        return [answer] {
            const ScratchFolder scratch;
            const Peer peer(scratch.path("sock"), {databases, answer});
            const Client client(schema::serverDatabase(),
                                {.socketPath = scratch.path("sock"), .timeout = std::chrono::seconds(10)});
        };
    };
    EXPECT_THAT(connecting(R"("result": null, "error": {"error": "unknown database", "details": "no database"})"),
                ThrowsMessage<SchemaError>(HasSubstr("unknown database: no database")));
    EXPECT_THROW(connecting(result("7"))(), SchemaError);
    EXPECT_THAT(connecting(R"({"id": null, "method": "update2", "params": ["x", {}]})"),
                ThrowsMessage<ProtocolError>(HasSubstr("unexpected notification \"update2\"")));
    EXPECT_THROW(connecting(R"({"id": 77, "result": 1, "error": null})")(), ProtocolError);
}

TEST(OvsdbClientAnswersTest, WhatIsNoAnswerToARead)
{
    for (const char* json : {"{}", "null", "[]", "[false, 5, {}]", "[{\"rows\": []}]"})
        EXPECT_THAT(reading({result(json)}), ThrowsMessage<ProtocolError>(HasSubstr("something else than"))) << json;
    for (const char* tables : {"5", "[]", R"({"Elsewhere": {}})", R"({"MoatKeeperInputPolicy": []})",
                               R"({"MoatKeeperInputPolicy": {"no uuid": {"initial": {"Id": 1}}}})"})
        EXPECT_THROW(reading({result("[false, " + transaction + ", " + tables + "]")})(), ProtocolError) << tables;
    const std::string refused = R"("result": null, "error": {"error": "permission denied", "details": "not\nyou"})";
    EXPECT_THAT(reading({refused, refused, refused}),
                ThrowsMessage<ProtocolError>(R"(subscription refused: permission denied: not\x0ayou)"));
}

TEST(OvsdbClientAnswersTest, WhatIsNoAnswerToATransaction)
{
    for (const char* json : {"{}", "null", "[]", "[{}, {}, {}]"})
        EXPECT_THAT(changing(result(json)), ThrowsMessage<ProtocolError>(HasSubstr("number of results"))) << json;
    for (const char* json : {"[5]", "[[]]", "[true]"})
        EXPECT_THAT(changing(result(json)), ThrowsMessage<ProtocolError>(HasSubstr("something else than objects")))
            << json;
}

TEST(OvsdbClientAnswersTest, OutcomesAreReadWithCare)
{
    const auto outcome = [](const std::string& json) {
        ovsdb::Outcome found;
        ask({result("[" + json + "]")}, [&](Client& client) {
            found = client.transact({ovsdb::deleteRows(policies, ovsdb::everyRow())}).outcomes.at(0);
        });
        return found;
    };
    EXPECT_TRUE(outcome("{}").done);
    EXPECT_EQ(outcome(R"({"count": 3})").count, 3);
    EXPECT_EQ(outcome(R"({"count": "many"})").count, 0);
    EXPECT_TRUE(outcome(R"({"uuid": ["uuid", "aaaaaaaa-0000-0000-0000-000000000001"]})").uuid);
    for (const char* uuid : {"5", "[]", R"(["uuid", 5])", R"(["uuid", "no uuid"])"})
        EXPECT_FALSE(outcome(std::string("{\"uuid\": ") + uuid + "}").uuid) << uuid;
    EXPECT_EQ(outcome(R"({"rows": [{"Number": 7}]})").number, 7);
    for (const char* rows : {"5", "[]", "[5]", R"([{"a": 1}, {"a": 2}])", R"([{"a": 1, "b": 2}])", R"([{"a": "x"}])",
                             R"([{"a": -1}])", R"([{"a": 2147483648}])"})
        EXPECT_FALSE(outcome(std::string("{\"rows\": ") + rows + "}").number) << rows;
    EXPECT_FALSE(outcome("null").done);
    EXPECT_EQ(outcome("null").error, "") << "not tried";
    EXPECT_EQ(outcome(R"({"error": "x"})").error, "x");
    EXPECT_EQ(outcome(R"({"error": "x", "details": "a\nb"})").details, "a b");
    EXPECT_EQ(outcome(R"({"error": "x", "details": 5})").details, "");
}

TEST(OvsdbClientAnswersTest, WhoAsksForAnUnknownTableHasMadeAMistake)
{
    ask({}, [](Client& client) { EXPECT_THROW(client.read({"Elsewhere"}), SchemaError); });
}

TEST(OvsdbTransactionResultTest, TheWholeIsJudgedByItsParts)
{
    ovsdb::TransactionResult result;
    EXPECT_TRUE(result.committed());
    EXPECT_EQ(result.errorText(), "");
    result.outcomes.resize(3);
    result.outcomes[0].done = true;
    EXPECT_FALSE(result.committed()) << "the others were not tried";
    EXPECT_EQ(result.failedOperation(), std::nullopt);
    result.outcomes[1].error = "constraint violation";
    EXPECT_EQ(result.failedOperation(), 1U);
    EXPECT_EQ(result.errorText(), "constraint violation");
    result.outcomes[1].details = "too long";
    EXPECT_EQ(result.errorText(), "constraint violation: too long");
    result.outcomes.clear();
    result.commitFailed.emplace().error = "I/O error";
    EXPECT_FALSE(result.committed());
    EXPECT_EQ(result.errorText(), "I/O error");
}

} // namespace
