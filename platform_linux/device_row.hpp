// The device's own row on the configuration server (schema/device.hpp): which change is in force here, and what is not.
#pragma once

#include "ovsdb/json.hpp"
#include "ovsdb/operations.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/event_dispatcher.hpp"
#include "platform_linux/queue/queue_status.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zol::cfg
{

// The way to the server, as ServerLink::transact: an answer comes later, or never.
using SendOperation = std::function<void(
    ovsdb::Json operation, std::function<void(const ovsdb::Json& result, const std::optional<std::string>& error)>)>;

// The newest state is what is written, at most every `pause`, and once more after each heartbeat. A write that was lost
// with its connection is made again on the next one; one that was refused is made again after a while: a relay that has
// lost its centre refuses, too. Nothing here is an error for the daemon: the log has a line when the server refuses,
// once until it takes something. Threading: the dispatcher's thread.
class DeviceRow
{
public:
    static constexpr std::chrono::milliseconds pause{100};

    // The dispatcher must outlive it. A name that no row can have is told in the log, and nothing is written.
    // afterRefusal: until the next attempt, where no heartbeat says otherwise or a relay did not get it through.
    DeviceRow(const std::string& deviceName, tessera::net::EventDispatcher::State& dispatcher,
              ZOL_Sysloglevel_Module logModule, SendOperation send,
              std::chrono::milliseconds afterRefusal = std::chrono::seconds(10));
    ~DeviceRow();
    DeviceRow(const DeviceRow&) = delete;
    DeviceRow& operator=(const DeviceRow&) = delete;

    // A server with the table is there from now on, which knows nothing of us; or there is none any more.
    void setServed(bool served);

    // What is so now. change: the number that was read last; it is in force if the queue is in step. heartbeat: seconds
    // after half of which to all of which the row is written again, so that many devices do not write at once; 0:
    // never.
    void update(std::int32_t change, const QueueStatus& status, std::int32_t heartbeat = 0);

    // The last word: nothing of the daemon's is in force from now on.
    void stop();

private:
    void writeSoon();
    void write();
    void insert();
    ovsdb::ColumnValues sentNow() const;
    void writeAgainLater(bool isLost = false);
    void taken();
    void refused(const std::string& reason);

    const std::string m_name; // empty: nothing is ever written
    tessera::net::EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const SendOperation m_send;
    const std::chrono::milliseconds m_afterRefusal;
    const std::string m_started;

    bool m_served = false;
    std::optional<std::int32_t> m_inForce;
    std::string m_since;
    std::optional<bool> m_inStep;
    std::string m_inStepSince;
    ovsdb::ColumnValues m_wanted; // without the name; empty: nothing is known yet
    ovsdb::ColumnValues m_sent;   // with the write under way or taken
    bool m_asked = false;         // an answer is to come
    bool m_toldRefused = false;
    std::chrono::steady_clock::time_point m_lastWrite{};
    tessera::net::EventDispatcher::State::TimerId m_timer = 0;
    std::int32_t m_heartbeat = 0;
    tessera::net::EventDispatcher::State::TimerId m_beat = 0;
};

} // namespace zol::cfg
