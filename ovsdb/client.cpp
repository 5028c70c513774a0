#include "ovsdb/client.hpp"

#include "ovsdb/connection.hpp"
#include "ovsdb/rpc_session.hpp"
#include "ovsdb/schema_check.hpp"
#include "ovsdb/subscription.hpp"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <poll.h>
#include <thread>
#include <typeindex>
#include <typeinfo>
#include <utility>

namespace ovsdb
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int progressInterval = 100; // milliseconds

Outcome outcomeOf(const Json& result)
{
    Outcome outcome;
    if (result.isNull()) // behind one that failed
        return outcome;
    if (const Json* error = result.find("error"); error != nullptr && error->asText() != nullptr) {
        outcome.error = *error->asText();
        if (const Json* details = result.find("details"); details != nullptr && details->asText() != nullptr)
            outcome.details = *details->asText();
        for (char& c : outcome.details) {
            if (c == '\n')
                c = ' ';
        }
        return outcome;
    }
    if (result.asObject() == nullptr)
        throw ProtocolError("transaction answered by something else than objects");
    outcome.done = true;
    if (const Json* count = result.find("count"))
        outcome.count = count->asInteger().value_or(0);
    if (const Json* uuid = result.find("uuid"); uuid != nullptr && uuid->asArray() != nullptr) {
        const Json::Array& pair = *uuid->asArray();
        if (pair.size() == 2 && pair[1].asText() != nullptr)
            outcome.uuid = Uuid::fromText(*pair[1].asText());
    }
    return outcome;
}

} // namespace

class Client::State
{
public:
    State(const Database& database, ClientOptions options) : m_database(database), m_options(std::move(options))
    {
        connect();
    }

    const Database& database() const { return m_database; }

    const std::string& schemaVersion() const { return m_schemaVersion; }

    const std::vector<std::string>& tableNames() const { return m_tableNames; }

    Json call(std::string_view method, Json params, std::size_t answerParts = 0)
    {
        if (m_subscribed) // its changes would come in between
            connect();
        const std::int64_t id = m_session->request(method, std::move(params), answerParts);
        m_requestSize = m_session->output().size();
        const RpcMessage answer = receive(deadline());
        if (answer.id != id)
            throw ProtocolError("unexpected notification \"" + answer.method.substr(0, 64) + "\"");
        if (answer.error)
            throw RequestError("the server refused \"" + std::string(method) + "\": " + *answer.error);
        return answer.result;
    }

    // Subscribes and waits for the first state. Returns the tables that differ from what was known before.
    std::set<std::string> start(Subscription& subscription)
    {
        if (m_subscribed) // the changes of an earlier subscription would come in between
            connect();
        m_subscribed = true;
        subscription.begin(*m_session);
        for (;;) { // each answer and each row ahead of it has the time of its own
            Subscription::Progress progress = subscription.handle(receive(deadline()), *m_session);
            if (progress.synchronised)
                return std::move(progress.changedTables);
        }
    }

    // Connects and subscribes again, however long that takes.
    std::set<std::string> restart(Subscription& subscription, std::type_index told, const OnConnection& onConnection)
    {
        for (;;) {
            std::this_thread::sleep_for(reconnectInterval);
            try {
                connect();
                return start(subscription);
            } catch (const Error& error) {
                if (std::exchange(told, typeid(error)) != typeid(error))
                    onConnection(&error);
            }
        }
    }

    // The next message, however long it takes to come.
    RpcMessage follow()
    {
        for (;;) {
            if (auto message = m_session->next())
                return *std::move(message);
            exchange(m_session->waiting() ? std::optional(deadline()) : std::nullopt);
        }
    }

    std::set<std::string> handle(const RpcMessage& message, Subscription& subscription)
    {
        return subscription.handle(message, *m_session).changedTables;
    }

private:
    Clock::time_point deadline() const { return Clock::now() + m_options.timeout; }

    void connect()
    {
        m_connection.emplace(m_options.socketPath);
        m_session.emplace();
        m_subscribed = false;
        try {
            const ServerSchema schema = checkSchema(call("get_schema", Json::Array{Json(m_database.name)}), m_database,
                                                    m_database.tableNames());
            m_schemaVersion = schema.version;
            m_tableNames = m_database.tableNames();
            std::erase_if(m_tableNames, [&schema](const std::string& name) {
                return std::ranges::find(schema.missing, name) != schema.missing.end();
            });
        } catch (const RequestError& e) {
            throw SchemaError("the server has no database \"" + m_database.name + "\" (" + e.what() + ")");
        }
    }

    RpcMessage receive(Clock::time_point end)
    {
        for (;;) {
            if (auto message = m_session->next())
                return *std::move(message);
            exchange(end);
        }
    }

    // Sends what is to be sent and reads what is there; waits for that until the time given, or without end.
    void exchange(std::optional<Clock::time_point> end)
    {
        int wait = -1;
        if (end) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
            if (left.count() <= 0)
                throw TimeoutError("no answer from the configuration server within " +
                                   std::to_string(m_options.timeout.count()) + " ms");
            wait = static_cast<int>(left.count());
            if (m_options.onProgress) {
                m_options.onProgress(m_requestSize - std::min(m_requestSize, m_session->output().size()),
                                     m_requestSize);
                wait = std::min(wait, progressInterval);
            }
        }
        pollfd event{.fd = m_connection->descriptor(), .events = POLLIN, .revents = 0};
        if (!m_session->output().empty())
            event.events |= POLLOUT;
        if (poll(&event, 1, wait) < 0 && errno != EINTR)
            throw ConnectionError("waiting for the configuration server failed");
        if ((event.revents & POLLOUT) != 0)
            m_session->consumed(m_connection->write(m_session->output()));
        if ((event.revents & (POLLIN | POLLHUP | POLLERR)) != 0)
            m_session->receive(m_connection->read());
    }

    const Database& m_database;
    ClientOptions m_options;
    std::optional<Connection> m_connection;
    std::optional<RpcSession> m_session;
    std::string m_schemaVersion;
    std::vector<std::string> m_tableNames;
    bool m_subscribed = false;
    std::size_t m_requestSize = 0;
};

Client::Client(const Database& database, ClientOptions options)
    : m_state(std::make_unique<State>(database, std::move(options)))
{
}

Client::~Client() = default;

const std::string& Client::schemaVersion() const
{
    return m_state->schemaVersion();
}

const std::vector<std::string>& Client::tableNames() const
{
    return m_state->tableNames();
}

TableCache Client::read()
{
    return read(m_state->tableNames());
}

TableCache Client::read(const std::vector<std::string>& tableNames)
{
    Subscription subscription(m_state->database(), tableNames);
    m_state->start(subscription);
    return subscription.takeTables();
}

TransactionResult Client::transact(const std::vector<Json>& operations)
{
    Json::Array params{Json(m_state->database().name)};
    params.insert(params.end(), operations.begin(), operations.end());
    const Json reply = m_state->call("transact", std::move(params), operations.size());
    const Json::Array* results = reply.asArray();
    if (results == nullptr || results->size() < operations.size() || results->size() > operations.size() + 1)
        throw ProtocolError("the server answered a transaction by another number of results than operations");
    TransactionResult result;
    for (std::size_t i = 0; i < operations.size(); ++i)
        result.outcomes.push_back(outcomeOf((*results)[i]));
    if (results->size() > operations.size())
        result.commitFailed = outcomeOf(results->back());
    return result;
}

void Client::watch(const std::vector<std::string>& tableNames, const OnChange& onChange,
                   const OnConnection& onConnection)
{
    Subscription subscription(m_state->database(), tableNames);
    m_state->start(subscription);
    if (!onChange(subscription.tables(), {tableNames.begin(), tableNames.end()}))
        return;
    for (;;) {
        try {
            for (;;) {
                const auto changed = m_state->handle(m_state->follow(), subscription);
                if (!changed.empty() && !onChange(subscription.tables(), changed))
                    return;
            }
        } catch (const Error& error) {
            if (!onConnection)
                throw;
            onConnection(&error);
            const auto changed = m_state->restart(subscription, typeid(error), onConnection);
            onConnection(nullptr);
            if (!changed.empty() && !onChange(subscription.tables(), changed))
                return;
        }
    }
}

} // namespace ovsdb
