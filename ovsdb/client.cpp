#include "ovsdb/client.hpp"

#include "ovsdb/rpc_session.hpp"
#include "ovsdb/schema_check.hpp"
#include "ovsdb/server_search.hpp"
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
        if (m_options.servers.empty())
            m_options.servers.push_back(localServer(m_options.socketPath));
        else
            m_mayChange = true;
        connect();
    }

    bool connectsAgain() const { return m_mayChange; }

    const std::string& databaseName() const { return m_schema.database; }

    const Database& database() const { return m_database; }

    const std::string& schemaVersion() const { return m_schema.version; }

    const std::vector<std::string>& tableNames() const { return m_tableNames; }

    Json call(std::string_view method, Json params, std::size_t answerParts = 0)
    {
        if (!m_link || (m_subscribed && !m_followed)) // its changes would come in between
            connect();
        const std::int64_t id = session().request(method, std::move(params), answerParts);
        m_requestSize = session().output().size();
        const Clock::time_point end = deadline();
        for (;;) {
            const RpcMessage answer = receive(end);
            if (answer.id != id) {
                takeIn(answer);
                continue;
            }
            if (answer.error == "canceled") { // by a relay that has lost its own server, which may have done it
                const std::string server = std::exchange(m_link, {})->server;
                throw ConnectionError(server + " has lost the server behind it before that has answered");
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
        startSomewhere(*subscription);
        m_followed = std::move(subscription);
        m_changed = false;
        return m_followed->tables();
    }

    const TableCache& followed() const { return m_followed->tables(); }

    // Before something is sent that must not be lost: a server elsewhere gives up a client that was silent for long, as
    // one is that computes.
    void makeSure()
    {
        if (!m_mayChange || !m_link || !m_followed)
            return;
        try {
            readWaiting();
        } catch (const ConnectionError&) {
            const std::vector<std::string> names = m_followed->tables().tableNames();
            m_link.reset();
            followTables(names);
        }
    }

    bool awaitChange(Clock::time_point end)
    {
        while (!std::exchange(m_changed, false)) {
            while (auto message = next())
                takeIn(*message);
            if (m_changed)
                continue;
            if (Clock::now() >= end)
                return false;
            checkHealth();
            exchange(end);
        }
        return true;
    }

    // Subscribes and waits for the first state. Returns the tables that differ from what was known before.
    std::set<std::string> start(Subscription& subscription)
    {
        if (!m_link || m_subscribed) // the changes of an earlier subscription would come in between
            connect();
        m_subscribed = true;
        m_followed.reset();
        subscription.begin(session(), m_schema);
        for (;;) { // each answer and each row ahead of it has the time of its own
            Subscription::Progress progress = subscription.handle(receive(deadline()), session());
            if (progress.synchronised)
                return std::move(progress.changedTables);
        }
    }

    // Likewise, from another server of several where one is lost meanwhile.
    void startSomewhere(Subscription& subscription)
    {
        const Clock::time_point end = deadline();
        for (;;) {
            try {
                start(subscription);
                return;
            } catch (const ConnectionError&) {
                lose(end);
            } catch (const TimeoutError&) {
                lose(end);
            }
            subscription.end();
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
            if (auto message = next())
                return *std::move(message);
            if (!m_mayChange && session().waiting())
                return receive(deadline());
            checkHealth();
            exchange(std::nullopt);
        }
    }

    std::set<std::string> handle(const RpcMessage& message, Subscription& subscription)
    {
        return subscription.handle(message, session()).changedTables;
    }

private:
    Clock::time_point deadline() const { return Clock::now() + m_options.timeout; }

    // In a handler of what a server's loss has thrown: throws that on unless there is another server to go to.
    void lose(Clock::time_point end)
    {
        if (m_options.servers.size() == 1 || !m_link || Clock::now() >= end)
            throw;
        m_link.reset();
    }

    // Finds a server, and whether it has our tables. One that is lost right after it was found is looked for again.
    void connect()
    {
        const Clock::time_point end = deadline();
        std::function<void()> whileWaiting;
        if (m_options.onProgress)
            whileWaiting = [this] { m_options.onProgress(0, 0); };
        for (;;) {
            try {
                m_followed.reset();
                m_subscribed = false;
                m_probe = 0;
                m_link.reset();
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
                m_link.emplace(findServer(m_options.servers, m_database.name, m_options.database,
                                          std::max(left, std::chrono::milliseconds(1)), whileWaiting));
                m_lastHeard = Clock::now();
                return readSchema();
            } catch (const ConnectionError&) {
                if (m_options.servers.size() == 1 || Clock::now() >= end || !m_link)
                    throw;
            }
        }
    }

    void readSchema()
    {
        try {
            m_schema = checkSchema(call("get_schema", Json::Array{Json(m_link->database)}), m_database,
                                   m_link->database, m_database.tableNames());
            m_tableNames = m_database.tableNames();
            std::erase_if(m_tableNames, [this](const std::string& name) {
                return std::ranges::find(m_schema.missing, name) != m_schema.missing.end();
            });
        } catch (const RequestError& e) {
            throw SchemaError("the server has no database \"" + m_link->database + "\" (" + e.what() + ")");
        }
    }

    RpcSession& session() { return m_link->session; }

    // The next message but for those that are about the server itself.
    std::optional<RpcMessage> next()
    {
        while (auto message = session().next()) {
            if (m_probe != 0 && message->method.empty() && !message->row && message->id == m_probe) {
                m_probe = 0;
                continue;
            }
            if (!m_link->state.take(*message))
                return message;
            if (!m_link->state.connected(m_link->database))
                throw ConnectionError(m_link->server + " has lost its cluster");
        }
        return std::nullopt;
    }

    // While nothing is asked: the server must still be the right one, and there. One on this machine that is gone shows
    // by the end of the connection.
    void checkHealth()
    {
        if (m_options.servers.size() > 1 && !m_link->state.leads(m_link->database))
            throw ConnectionError(m_link->server + " leads its cluster no more");
        if (!m_mayChange)
            return;
        const Clock::duration silent = Clock::now() - m_lastHeard;
        if (silent >= m_options.timeout / 2)
            throw TimeoutError("no sign of " + m_link->server + " for " +
                               std::to_string(m_options.timeout.count() / 2) + " ms");
        if (silent >= m_options.timeout / 4 && m_probe == 0)
            m_probe = session().request("echo", Json::Array());
    }

    // What has come meanwhile.
    void readWaiting()
    {
        for (;;) {
            while (const auto message = next())
                takeIn(*message);
            pollfd event = m_link->stream->interest(false);
            if (poll(&event, 1, 0) <= 0 && !m_link->stream->hasMore())
                return;
            session().receive(m_link->stream->read());
        }
    }

    // Of what is followed, ahead of an answer.
    void takeIn(const RpcMessage& message)
    {
        if (!m_followed)
            throw ProtocolError("unexpected notification \"" + message.method.substr(0, 64) + "\"");
        if (!m_followed->handle(message, session()).changedTables.empty())
            m_changed = true;
    }

    RpcMessage receive(Clock::time_point end)
    {
        for (;;) {
            if (auto message = next())
                return *std::move(message);
            checkTime(end);
            if (m_options.onProgress)
                m_options.onProgress(m_requestSize - std::min(m_requestSize, session().output().size()), m_requestSize);
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
        if (m_mayChange) { // its health is to be looked at in time
            const Clock::time_point look = Clock::now() + m_options.timeout / 8;
            end = end ? std::min(*end, look) : look;
        }
        int wait = -1;
        if (end) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
            wait =
                static_cast<int>(std::clamp<std::int64_t>(left, 0, m_options.onProgress ? progressInterval : INT_MAX));
        }
        Stream& stream = *m_link->stream;
        pollfd event = stream.interest(!session().output().empty());
        const int count = poll(&event, 1, wait);
        if (count < 0 && errno != EINTR)
            throw ConnectionError("waiting for the configuration server failed");
        if (count <= 0)
            return;
        if (!session().output().empty())
            session().consumed(stream.write(session().output()));
        do {
            const std::string_view bytes = stream.read();
            if (!bytes.empty())
                m_lastHeard = Clock::now();
            session().receive(bytes);
        } while (stream.hasMore());
    }

    const Database& m_database;
    ClientOptions m_options;
    bool m_mayChange = false; // the server: those that were given, not just the one on this machine
    std::optional<ServerFound> m_link;
    std::int64_t m_probe = 0; // the request that the server is to answer as a sign of life
    Clock::time_point m_lastHeard{};
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

const std::string& Client::databaseName() const
{
    return m_state->databaseName();
}

bool Client::connectsAgain() const
{
    return m_state->connectsAgain();
}

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
    m_state->startSomewhere(subscription);
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
    Json::Array params{Json(m_state->databaseName())};
    params.insert(params.end(), operations.begin(), operations.end());
    m_state->makeSure();
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
