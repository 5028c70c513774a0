#include "ovsdb/client.hpp"

#include "ovsdb/connection.hpp"
#include "ovsdb/rpc_session.hpp"
#include "ovsdb/schema_check.hpp"
#include "ovsdb/subscription.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
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

// The only value of the only row that was read.
std::optional<std::int32_t> numberIn(const Json* rows)
{
    if (rows == nullptr || rows->asArray() == nullptr || rows->asArray()->size() != 1)
        return std::nullopt;
    const Json::Object* row = rows->asArray()->front().asObject();
    const auto number = row != nullptr && row->size() == 1 ? row->front().second.asInteger() : std::nullopt;
    return number && *number >= 0 && *number <= INT32_MAX ? std::optional(static_cast<std::int32_t>(*number))
                                                          : std::nullopt;
}

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
    outcome.number = numberIn(result.find("rows"));
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

    const std::string& schemaVersion() const { return m_schema.version; }

    const std::vector<std::string>& tableNames() const { return m_tableNames; }

    Json call(std::string_view method, Json params, std::size_t answerParts = 0)
    {
        if (m_subscribed && !m_followed) // its changes would come in between
            connect();
        const std::int64_t id = m_session->request(method, std::move(params), answerParts);
        m_requestSize = m_session->output().size();
        const Clock::time_point end = deadline();
        for (;;) {
            const RpcMessage answer = receive(end);
            if (answer.id != id) {
                takeIn(answer);
                continue;
            }
            if (answer.error)
                throw RequestError("the server refused \"" + std::string(method) + "\": " + *answer.error);
            return answer.result;
        }
    }

    const TableCache& followTables(const std::vector<std::string>& tableNames)
    {
        m_followed.reset();
        auto subscription = std::make_unique<Subscription>(m_database, tableNames);
        start(*subscription);
        m_followed = std::move(subscription);
        m_changed = false;
        return m_followed->tables();
    }

    const TableCache& followed() const { return m_followed->tables(); }

    bool awaitChange(Clock::time_point end)
    {
        while (!std::exchange(m_changed, false)) {
            while (auto message = m_session->next())
                takeIn(*message);
            if (m_changed)
                continue;
            if (Clock::now() >= end)
                return false;
            exchange(end);
        }
        return true;
    }

    // Subscribes and waits for the first state. Returns the tables that differ from what was known before.
    std::set<std::string> start(Subscription& subscription)
    {
        if (m_subscribed) // the changes of an earlier subscription would come in between
            connect();
        m_subscribed = true;
        m_followed.reset();
        subscription.begin(*m_session, m_schema);
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

    // The next message, however long it takes to come; one that has begun has the timeout.
    RpcMessage follow()
    {
        for (;;) {
            if (auto message = m_session->next())
                return *std::move(message);
            if (m_session->waiting())
                return receive(deadline());
            exchange(std::nullopt);
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
        m_followed.reset();
        try {
            m_schema = checkSchema(call("get_schema", Json::Array{Json(m_database.name)}), m_database,
                                   m_database.tableNames());
            m_tableNames = m_database.tableNames();
            std::erase_if(m_tableNames, [this](const std::string& name) {
                return std::ranges::find(m_schema.missing, name) != m_schema.missing.end();
            });
        } catch (const RequestError& e) {
            throw SchemaError("the server has no database \"" + m_database.name + "\" (" + e.what() + ")");
        }
    }

    // Of what is followed, ahead of an answer.
    void takeIn(const RpcMessage& message)
    {
        if (!m_followed)
            throw ProtocolError("unexpected notification \"" + message.method.substr(0, 64) + "\"");
        if (!m_followed->handle(message, *m_session).changedTables.empty())
            m_changed = true;
    }

    RpcMessage receive(Clock::time_point end)
    {
        for (;;) {
            if (auto message = m_session->next())
                return *std::move(message);
            checkTime(end);
            if (m_options.onProgress)
                m_options.onProgress(m_requestSize - std::min(m_requestSize, m_session->output().size()),
                                     m_requestSize);
            exchange(end);
        }
    }

    void checkTime(Clock::time_point end) const
    {
        if (Clock::now() >= end)
            throw TimeoutError("no answer from the configuration server within " +
                               std::to_string(m_options.timeout.count()) + " ms");
    }

    // Sends what is to be sent and reads what is there; waits for that until the time given, or without end.
    void exchange(std::optional<Clock::time_point> end)
    {
        int wait = -1;
        if (end) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
            wait =
                static_cast<int>(std::clamp<std::int64_t>(left, 0, m_options.onProgress ? progressInterval : INT_MAX));
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
    ServerSchema m_schema;
    std::vector<std::string> m_tableNames;
    bool m_subscribed = false;
    std::unique_ptr<Subscription> m_followed;
    bool m_changed = false; // what is followed, and nobody has been told
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

const TableCache& Client::follow(const std::vector<std::string>& tableNames)
{
    return m_state->followTables(tableNames);
}

const TableCache& Client::followed() const
{
    return m_state->followed();
}

bool Client::awaitChange(std::chrono::steady_clock::time_point end)
{
    return m_state->awaitChange(end);
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
