#include "platform/notification_handler.hpp"

#include "ovsdb/connection.hpp"
#include "ovsdb/rpc_session.hpp"
#include "ovsdb/subscription.hpp"
#include "platform/config_handler.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/config_source.hpp"
#include "platform_linux/delivery_names.hpp"
#include "platform_linux/event_dispatcher.hpp"
#include "platform_linux/queue/transaction_queue.hpp"
#include "schema/server/database.hpp"

#include <chrono>
#include <cstdint>
#include <list>
#include <malloc.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/epoll.h>
#include <utility>
#include <vector>

namespace zol::cfg
{

namespace
{

using std::chrono::milliseconds;
using tessera::net::EventDispatcher;

const char* const label = "ovsdb";

// What the log last said about the server. Each change is one line, however many attempts it lasts.
enum class Health { Unknown, Connected, Absent, Lost, Foreign, Malformed, Unsuitable, Stalled };

} // namespace

class NotificationHandler::State
{
public:
    State(std::string socketPath, EventDispatcher& dispatcher, const std::string& clientName, bool failWithoutServer,
          int requestTimeoutSeconds, int reconnectIntervalMs, bool reconnect)
        : m_socketPath(std::move(socketPath)),
          m_dispatcher(dispatcher.state()),
          m_logModule(ZOL_Sysloglevel_registerModul(clientName.c_str())),
          m_failWithoutServer(failWithoutServer),
          m_requestTimeout(std::chrono::seconds(requestTimeoutSeconds)),
          m_reconnectInterval(reconnectIntervalMs),
          m_reconnect(reconnect)
    {
        if (m_queue.watchedDescriptor() >= 0)
            m_dispatcher.addDescriptor(m_queue.watchedDescriptor(), EPOLLIN, [this](std::uint32_t) {
                m_queue.handleChange();
                scheduleRetry();
            });
    }

    ~State()
    {
        disconnect();
        m_dispatcher.stopTimer(m_reconnectTimer);
        m_dispatcher.stopTimer(m_retryTimer);
        m_dispatcher.stopTimer(m_reminderTimer);
        if (m_queue.watchedDescriptor() >= 0)
            m_dispatcher.removeDescriptor(m_queue.watchedDescriptor());
    }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void registerHandler(IConfigHandler* handler)
    {
        std::list<std::string> names;
        handler->getTableNames(names);
        m_handler = handler;
        m_subscription.emplace(schema::serverDatabase(), std::vector<std::string>(names.begin(), names.end()));
        m_source.emplace(m_subscription->tables(), m_logModule);
    }

    void initialize()
    {
        if (m_handler == nullptr)
            throw std::logic_error("no configuration handler is registered");
        m_reminderTimer = m_dispatcher.startTimer(m_requestTimeout, [this] { remind(m_requestTimeout); });
        if (!connect() && m_failWithoutServer)
            throw std::runtime_error("no configuration server at " + m_socketPath);
    }

    void process()
    {
        if (!m_all && m_changedTables.empty())
            return;
        const std::vector<std::string> names =
            m_all ? std::vector<std::string>{""}
                  : deliveryNames(m_subscription->tables().tableNames(), m_changedTables);
        m_all = false;
        m_changedTables.clear();
        deliver(names);
        malloc_trim(0); // what a message, a read and a commit took for a while; the next may be days away
        scheduleRetry();
    }

private:
    void deliver(const std::vector<std::string>& names)
    {
        struct AtTheEnd {
            explicit AtTheEnd(TransactionQueue& q) : queue(q) {}
            ~AtTheEnd() { queue.endDelivery(); }
            AtTheEnd(const AtTheEnd&) = delete;
            AtTheEnd& operator=(const AtTheEnd&) = delete;
            TransactionQueue& queue;
        };
        const AtTheEnd carriedOut(m_queue);
        for (const std::string& name : names)
            m_handler->loadFromConfig(*m_source, name);
        m_handler->commitToSystem(*m_source, &m_queue);
    }

    // While the tables cannot be changed, what is wanted waits in the queue.
    void scheduleRetry()
    {
        m_dispatcher.stopTimer(m_retryTimer);
        if (const auto pause = m_queue.retryIn()) {
            m_retryTimer = m_dispatcher.startTimer(*pause, [this] {
                m_queue.retry();
                scheduleRetry();
            });
        }
    }

    bool connect()
    {
        try {
            m_connection.emplace(m_socketPath);
            m_session.emplace();
            m_subscription->begin(*m_session);
            m_wantsWrite = false;
            m_dispatcher.addDescriptor(m_connection->descriptor(), EPOLLIN,
                                       [this](std::uint32_t events) { handleEvents(events); });
            m_registered = true;
            flush();
            watchForStall(true);
            return true;
        } catch (const ovsdb::ForeignServerError& e) {
            fail(Health::Foreign, e.what());
        } catch (const ovsdb::ConnectionError& e) {
            fail(m_connection ? Health::Lost : Health::Absent, e.what());
        }
        return false;
    }

    void disconnect()
    {
        m_dispatcher.stopTimer(std::exchange(m_stallTimer, 0));
        if (std::exchange(m_registered, false))
            m_dispatcher.removeDescriptor(m_connection->descriptor());
        m_connection.reset();
        m_session.reset();
        if (m_subscription)
            m_subscription->end();
    }

    void handleEvents(std::uint32_t events)
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

    void handleMessage(const ovsdb::RpcMessage& message)
    {
        auto progress = m_subscription->handle(message, *m_session);
        m_source->update(progress.changedTables);
        if (progress.synchronised) {
            // Delivered even if nothing differs from what was delivered last: every delivery is a read and a commit,
            // so no change waits that an equal read could cancel, and a commit without changes does nothing.
            m_all = true;
            m_dispatcher.stopTimer(std::exchange(m_reminderTimer, 0));
            report(Health::Connected, "connected to " + m_socketPath + ", schema " + m_subscription->schemaVersion());
        }
        m_changedTables.merge(progress.changedTables);
    }

    void flush()
    {
        if (!m_session->output().empty())
            m_session->consumed(m_connection->write(m_session->output()));
        const bool wantsWrite = !m_session->output().empty();
        if (std::exchange(m_wantsWrite, wantsWrite) != wantsWrite)
            m_dispatcher.modifyDescriptor(m_connection->descriptor(), wantsWrite ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }

    // Keeps a timer while the server owes something; restarted whenever a message or a row of one has come.
    void watchForStall(bool progress)
    {
        const bool waiting = m_session->waiting() || m_wantsWrite;
        if (waiting && !progress && m_stallTimer != 0)
            return;
        m_dispatcher.stopTimer(std::exchange(m_stallTimer, 0));
        if (!waiting)
            return;
        m_stallTimer = m_dispatcher.startTimer(m_requestTimeout, [this] {
            m_stallTimer = 0;
            fail(Health::Stalled, "no answer within " + std::to_string(m_requestTimeout.count() / 1000) + " s");
        });
    }

    // While there has been no configuration at all, the log says so again and again.
    void remind(milliseconds waited)
    {
        ZOL_Sysloglevel_warning(m_logModule, label, 80,
                                "no configuration for " + std::to_string(waited.count() / 1000) + " s: " + m_reason +
                                    ". Nothing is changed before there is one");
        m_reminderTimer =
            m_dispatcher.startTimer(m_requestTimeout, [this, waited] { remind(waited + m_requestTimeout); });
    }

    void fail(Health health, const std::string& reason)
    {
        m_reason = reason;
        disconnect();
        const std::string next = m_reconnect
                                     ? "; trying again every " + std::to_string(m_reconnectInterval.count()) + " ms"
                                     : "; not trying again";
        report(health, reason + next);
        if (m_reconnect)
            m_reconnectTimer = m_dispatcher.startTimer(m_reconnectInterval, [this] { connect(); });
    }

    void report(Health health, const std::string& text)
    {
        if (std::exchange(m_health, health) == health)
            return;
        switch (health) {
        case Health::Unknown:
            break;
        case Health::Connected:
            ZOL_Sysloglevel_info(m_logModule, label, 10, text);
            break;
        case Health::Absent:
            ZOL_Sysloglevel_warning(m_logModule, label, 20, text);
            break;
        case Health::Lost:
            ZOL_Sysloglevel_warning(m_logModule, label, 30, text);
            break;
        case Health::Stalled:
            ZOL_Sysloglevel_warning(m_logModule, label, 40, text);
            break;
        case Health::Foreign:
            ZOL_Sysloglevel_error(m_logModule, label, 50, text);
            break;
        case Health::Malformed:
            ZOL_Sysloglevel_error(m_logModule, label, 60, text);
            break;
        case Health::Unsuitable:
            ZOL_Sysloglevel_error(m_logModule, label, 70, text);
            break;
        }
    }

    const std::string m_socketPath;
    EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const bool m_failWithoutServer;
    const milliseconds m_requestTimeout;
    const milliseconds m_reconnectInterval;
    const bool m_reconnect;

    TransactionQueue m_queue;
    IConfigHandler* m_handler = nullptr;
    std::optional<ovsdb::Subscription> m_subscription;
    std::optional<ConfigSource> m_source; // of the subscription's tables

    std::optional<ovsdb::Connection> m_connection;
    std::optional<ovsdb::RpcSession> m_session;
    bool m_registered = false; // the connection's descriptor, with the dispatcher
    bool m_wantsWrite = false;
    Health m_health = Health::Unknown;
    std::string m_reason{"the server has not sent it yet"}; // why there may be no configuration

    EventDispatcher::State::TimerId m_stallTimer = 0;
    EventDispatcher::State::TimerId m_reconnectTimer = 0;
    EventDispatcher::State::TimerId m_retryTimer = 0;
    EventDispatcher::State::TimerId m_reminderTimer = 0;

    // Not delivered yet.
    bool m_all = false;
    std::set<std::string> m_changedTables;
};

NotificationHandler::NotificationHandler(const std::string& socketPath, EventDispatcher& dispatcher,
                                         const std::string& clientName, bool failWithoutServer,
                                         int requestTimeoutSeconds, int reconnectIntervalMs, bool reconnect)
    : m_state(std::make_unique<State>(socketPath, dispatcher, clientName, failWithoutServer, requestTimeoutSeconds,
                                      reconnectIntervalMs, reconnect))
{
}

NotificationHandler::~NotificationHandler() = default;

void NotificationHandler::registerConfigHandler(IConfigHandler* handler)
{
    m_state->registerHandler(handler);
}

void NotificationHandler::initialize()
{
    m_state->initialize();
}

void NotificationHandler::process()
{
    m_state->process();
}

} // namespace zol::cfg
