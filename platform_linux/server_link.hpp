// The connection to the configuration server: made, watched, and made again for as long as the daemon runs. What the
// server tells goes into a copy of the subscribed tables; a broken message costs the connection, never the copy.
#pragma once

#include "ovsdb/connection.hpp"
#include "ovsdb/rpc_session.hpp"
#include "ovsdb/subscription.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/event_dispatcher.hpp"
#include "platform_linux/file_watch.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zol::cfg
{

// Threading: the dispatcher's thread only. The log gets one line for each change of the link's health, and one each
// request time-out while there has been no configuration at all.
class ServerLink
{
public:
    struct Settings {
        std::string socketPath;
        std::chrono::milliseconds requestTimeout;
        std::chrono::milliseconds reconnectInterval;
        bool reconnect;
    };
    // Called for each message, after the copy has changed as the message says.
    using Listener = std::function<void(ovsdb::Subscription::Progress)>;

    // The dispatcher must outlive it. Throws ovsdb::SchemaError for a table that the database does not have.
    ServerLink(Settings settings, tessera::net::EventDispatcher::State& dispatcher, ZOL_Sysloglevel_Module logModule,
               const std::vector<std::string>& tableNames, Listener listener);
    ~ServerLink();
    ServerLink(const ServerLink&) = delete;
    ServerLink& operator=(const ServerLink&) = delete;

    // From now on hears of every row that changes, before the listener hears of the message.
    void watchRows(ovsdb::RowWatcher watcher) { m_subscription.watchRows(std::move(watcher)); }

    // The first attempt; false when there is no server yet.
    bool start();

    // Leaves the server, if there is one, and goes to it anew at once.
    void renew();

    const ovsdb::TableCache& tables() const { return m_subscription.tables(); }

    // Whether the server has told its state, and has the table.
    bool serves(std::string_view tableName) const;

    // Sends a transaction of one operation; answered with the operation's result, or with an error. Not answered when
    // the connection is lost first, or when there is none.
    using Answered = std::function<void(const ovsdb::Json& result, const std::optional<std::string>& error)>;
    void transact(ovsdb::Json operation, Answered answered);
    // Of several, answered with the first one's result.
    void transact(std::vector<ovsdb::Json> operations, Answered answered);

private:
    using Clock = std::chrono::steady_clock;

    // What the log last said about the server. Each change is one line, however many attempts it lasts.
    enum class Health { Unknown, Connected, Absent, Lost, Foreign, Malformed, Unsuitable, Stalled };

    bool connect();
    void disconnect();
    void handleEvents(std::uint32_t events);
    void handleMessage(const ovsdb::RpcMessage& message);
    static void tellResult(const ovsdb::RpcMessage& answer, const Answered& answered);
    void flush();
    void watchForStall(bool progress);
    void serverAppeared();
    void connectIn(std::chrono::milliseconds pause);
    void remind(std::chrono::milliseconds waited);
    void fail(Health health, const std::string& reason);
    void report(Health health, const std::string& text);

    const Settings m_settings;
    tessera::net::EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const Listener m_listener;

    ovsdb::Subscription m_subscription;
    std::optional<ovsdb::Connection> m_connection;
    std::optional<ovsdb::RpcSession> m_session;
    std::map<std::int64_t, Answered> m_asked; // by the request's id
    bool m_registered = false;                // the connection's descriptor, with the dispatcher
    bool m_wantsWrite = false;
    Health m_health = Health::Unknown;
    std::string m_reason{"the server has not sent it yet"}; // why there may be no configuration

    FileWatch m_socketWatch; // while there is no connection
    Clock::time_point m_lastTry{};
    unsigned m_quickTries = 0; // left: the server's socket is there, but does not listen yet

    tessera::net::EventDispatcher::State::TimerId m_stallTimer = 0;
    tessera::net::EventDispatcher::State::TimerId m_reconnectTimer = 0;
    tessera::net::EventDispatcher::State::TimerId m_reminderTimer = 0;
};

} // namespace zol::cfg
