#include "platform_linux/server_link.hpp"

#include "schema/server/database.hpp"
#include "schema/tables.hpp"

#include <sys/epoll.h>
#include <utility>

namespace zol::cfg
{

namespace
{

using std::chrono::milliseconds;

const char* const linkLabel = "ovsdb";

// A server makes its socket and listens a moment later. Whoever makes and removes files there without a pause does not
// make us faster than this.
constexpr milliseconds quickPause{10};
constexpr unsigned quickTries = 100;

} // namespace

ServerLink::ServerLink(Settings settings, tessera::net::EventDispatcher::State& dispatcher,
                       ZOL_Sysloglevel_Module logModule, const std::vector<std::string>& tableNames, Listener listener)
    : m_settings(std::move(settings)),
      m_dispatcher(dispatcher),
      m_logModule(logModule),
      m_listener(std::move(listener)),
      m_subscription(schema::serverDatabaseWithDevices(), tableNames),
      m_socketWatch(m_settings.socketPath, dispatcher, [this] { serverAppeared(); })
{
}

ServerLink::~ServerLink()
{
    try {
        if (m_session)
            flush(); // what is still to be said, if the server takes it at once
    } catch (const ovsdb::ConnectionError&) {
        // It knows that we are gone.
    }
    disconnect();
    m_dispatcher.stopTimer(m_reconnectTimer);
    m_dispatcher.stopTimer(m_reminderTimer);
}

bool ServerLink::start()
{
    m_reminderTimer = m_dispatcher.startTimer(m_settings.requestTimeout, [this] { remind(m_settings.requestTimeout); });
    return connect();
}

void ServerLink::renew()
{
    if (!m_session)
        return serverAppeared();
    disconnect();
    connectIn(milliseconds(0));
}

void ServerLink::serverAppeared()
{
    if (m_quickTries > 0)
        return; // soon anyway
    m_quickTries = quickTries;
    connectIn(m_lastTry + quickPause > Clock::now() ? quickPause : milliseconds(0));
}

void ServerLink::connectIn(milliseconds pause)
{
    m_dispatcher.stopTimer(m_reconnectTimer);
    m_reconnectTimer = m_dispatcher.startTimer(pause, [this] { connect(); });
}

bool ServerLink::connect()
{
    // Before the attempt: a socket that appears right after it is noticed.
    if (m_settings.reconnect)
        m_socketWatch.start();
    m_lastTry = Clock::now();
    try {
        m_connection.emplace(m_settings.socketPath);
        m_session.emplace();
        m_subscription.begin(*m_session);
        m_wantsWrite = false;
        m_dispatcher.addDescriptor(m_connection->descriptor(), EPOLLIN,
                                   [this](std::uint32_t events) { handleEvents(events); });
        m_registered = true;
        flush();
        watchForStall(true);
        m_socketWatch.stop();
        m_quickTries = 0;
        return true;
    } catch (const ovsdb::ForeignServerError& e) {
        fail(Health::Foreign, e.what());
    } catch (const ovsdb::ConnectionError& e) {
        fail(m_connection ? Health::Lost : Health::Absent, e.what());
    }
    return false;
}

void ServerLink::disconnect()
{
    m_dispatcher.stopTimer(std::exchange(m_stallTimer, 0));
    if (std::exchange(m_registered, false))
        m_dispatcher.removeDescriptor(m_connection->descriptor());
    m_connection.reset();
    m_session.reset();
    m_asked.clear();
    m_subscription.end();
}

void ServerLink::handleEvents(std::uint32_t events)
{
    try {
        bool progress = false;
        if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
            m_session->receive(m_connection->read());
            while (const auto message = m_session->next()) {
                handleMessage(*message);
                progress = true;
            }
        }
        flush();
        watchForStall(progress);
    } catch (const ovsdb::ProtocolError& e) {
        fail(Health::Malformed, e.what());
    } catch (const ovsdb::SchemaError& e) {
        fail(Health::Unsuitable, e.what());
    } catch (const ovsdb::ConnectionError& e) {
        fail(Health::Lost, e.what());
    }
}

void ServerLink::handleMessage(const ovsdb::RpcMessage& message)
{
    if (message.method.empty() && !message.row) {
        if (const auto asked = m_asked.find(message.id); asked != m_asked.end()) {
            const Answered answered = std::move(asked->second);
            m_asked.erase(asked);
            return tellResult(message, answered);
        }
    }
    auto progress = m_subscription.handle(message, *m_session);
    if (progress.synchronised) {
        m_dispatcher.stopTimer(std::exchange(m_reminderTimer, 0));
        report(Health::Connected,
               "connected to " + m_settings.socketPath + ", schema " + m_subscription.schemaVersion());
    }
    m_listener(std::move(progress));
}

// The answer to a transaction is a list of results, one for each operation until one fails.
void ServerLink::tellResult(const ovsdb::RpcMessage& answer, const Answered& answered)
{
    if (answer.error)
        return answered({}, answer.error);
    const ovsdb::Json::Array* results = answer.result.asArray();
    if (results == nullptr || results->empty())
        throw ovsdb::ProtocolError("transaction answered by something else than a list of results");
    for (const ovsdb::Json& result : *results) {
        if (result.find("error") != nullptr)
            return answered({}, ovsdb::describeError(result));
    }
    answered(results->front(), std::nullopt);
}

bool ServerLink::serves(std::string_view tableName) const
{
    return m_subscription.synchronised() && m_subscription.serverHas(tableName);
}

void ServerLink::transact(ovsdb::Json operation, Answered answered)
{
    std::vector<ovsdb::Json> operations;
    operations.push_back(std::move(operation));
    transact(std::move(operations), std::move(answered));
}

void ServerLink::transact(std::vector<ovsdb::Json> operations, Answered answered)
{
    if (!m_session)
        return;
    operations.insert(operations.begin(), ovsdb::Json(m_subscription.databaseName()));
    const std::int64_t id = m_session->request("transact", ovsdb::Json::Array(std::move(operations)));
    m_asked[id] = std::move(answered);
    // Sent by the event loop: whoever calls may be in the middle of a message.
    if (!std::exchange(m_wantsWrite, true))
        m_dispatcher.modifyDescriptor(m_connection->descriptor(), EPOLLIN | EPOLLOUT);
}

void ServerLink::flush()
{
    if (!m_session->output().empty())
        m_session->consumed(m_connection->write(m_session->output()));
    const bool wantsWrite = !m_session->output().empty();
    if (std::exchange(m_wantsWrite, wantsWrite) != wantsWrite)
        m_dispatcher.modifyDescriptor(m_connection->descriptor(), wantsWrite ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// Keeps a timer while the server owes something; restarted whenever a message or a row of one has come.
void ServerLink::watchForStall(bool progress)
{
    const bool waiting = m_session->waiting() || m_wantsWrite;
    if (waiting && !progress && m_stallTimer != 0)
        return;
    m_dispatcher.stopTimer(std::exchange(m_stallTimer, 0));
    if (!waiting)
        return;
    m_stallTimer = m_dispatcher.startTimer(m_settings.requestTimeout, [this] {
        m_stallTimer = 0;
        fail(Health::Stalled, "no answer within " + std::to_string(m_settings.requestTimeout.count() / 1000) + " s");
    });
}

// While there has been no configuration at all, the log says so again and again.
void ServerLink::remind(milliseconds waited)
{
    ZOL_Sysloglevel_warning(m_logModule, linkLabel, 80,
                            "no configuration for " + std::to_string(waited.count() / 1000) + " s: " + m_reason +
                                ". Nothing is changed before there is one");
    m_reminderTimer = m_dispatcher.startTimer(m_settings.requestTimeout,
                                              [this, waited] { remind(waited + m_settings.requestTimeout); });
}

void ServerLink::fail(Health health, const std::string& reason)
{
    m_reason = reason;
    disconnect();
    const std::string next =
        m_settings.reconnect ? "; trying again every " + std::to_string(m_settings.reconnectInterval.count()) + " ms"
                             : "; not trying again";
    report(health, reason + next);
    if (!m_settings.reconnect)
        return;
    m_socketWatch.start();
    const bool soon = m_quickTries > 0 && health == Health::Absent;
    m_quickTries = soon ? m_quickTries - 1 : 0;
    connectIn(soon ? quickPause : m_settings.reconnectInterval);
}

void ServerLink::report(Health health, const std::string& text)
{
    if (std::exchange(m_health, health) == health)
        return;
    switch (health) {
    case Health::Unknown:
        break;
    case Health::Connected:
        ZOL_Sysloglevel_info(m_logModule, linkLabel, 10, text);
        if (m_subscription.databaseName() != schema::databaseName)
            ZOL_Sysloglevel_info(m_logModule, linkLabel, 90, "its database is " + m_subscription.databaseName());
        break;
    case Health::Absent:
        ZOL_Sysloglevel_warning(m_logModule, linkLabel, 20, text);
        break;
    case Health::Lost:
        ZOL_Sysloglevel_warning(m_logModule, linkLabel, 30, text);
        break;
    case Health::Stalled:
        ZOL_Sysloglevel_warning(m_logModule, linkLabel, 40, text);
        break;
    case Health::Foreign:
        ZOL_Sysloglevel_error(m_logModule, linkLabel, 50, text);
        break;
    case Health::Malformed:
        ZOL_Sysloglevel_error(m_logModule, linkLabel, 60, text);
        break;
    case Health::Unsuitable:
        ZOL_Sysloglevel_error(m_logModule, linkLabel, 70, text);
        break;
    }
}

} // namespace zol::cfg
