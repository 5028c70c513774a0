// Tells the history of changes that nobody else has told it: those of clients other than moatctl (schema/history.hpp).
#pragma once

#include "ovsdb/table_cache.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/event_dispatcher.hpp"
#include "schema/server/recorded_change.hpp"
#include "schema/server/row_sum.hpp"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zol::cfg
{

// Whoever tells the history of a change says in its entry which sum the rows have then if all changes are told
// (schema/server/row_sum.hpp). As long as that is the rows' sum nothing is missing. Otherwise the rows that were seen
// to change become an entry. Of several devices that send it the server takes the first: the entry's number is unique,
// and the others see by the sum of that entry which changes it tells of.
//
// Nothing is sent while a change waits to be confirmed, nor twice within a second: what comes faster is one entry. Nor
// is anything on a connection on which the server has said that this is not for us.
// Threading: the dispatcher's thread.
class HistoryWatch
{
public:
    // Sends a transaction; answered with the first operation's result or an error, later or never.
    using Send = std::function<void(
        std::vector<ovsdb::Json> operations,
        std::function<void(const ovsdb::Json& result, const std::optional<std::string>& error)> answered)>;
    static constexpr std::chrono::milliseconds pause{1000}; // between two entries

    // The dispatcher and the tables, which are the server's, must outlive it.
    HistoryWatch(const std::string& hostName, const ovsdb::TableCache& tables,
                 tessera::net::EventDispatcher::State& dispatcher, ZOL_Sysloglevel_Module logModule, Send send,
                 std::function<std::chrono::system_clock::time_point()> wallClock);
    ~HistoryWatch();
    HistoryWatch(const HistoryWatch&) = delete;
    HistoryWatch& operator=(const HistoryWatch&) = delete;

    // As ovsdb::RowWatcher.
    void rowChanges(const ovsdb::Table& table, const ovsdb::Row* before, const ovsdb::Row* after);

    // The rows that changed are those of one message of the server. connected: it is a new connection; what was sent
    // before may be lost. served: the server has a history.
    void update(bool connected, bool served);

private:
    using Clock = std::chrono::steady_clock;
    using Key = std::pair<const ovsdb::Table*, std::int32_t>; // and the Id

    // A row that came, went or changed. It may wait for long, and there may be many.
    struct SeenChange {
        std::optional<ovsdb::RowValues> before;
        std::optional<ovsdb::RowValues> after;
        bool changesNothing() const { return before == after; }
        void subtract(const schema::RecordedChange& told);
    };
    using Rows = std::map<Key, SeenChange>;

    // What one message brought that no entry tells of.
    struct Step {
        std::uint64_t sum = 0;           // by how much the rows' sum changed
        Rows rows{};                     // empty: nobody has seen them
        std::int32_t from = 0, upTo = 0; // entries that came with the same message tell of some of the rows
    };

    void begin(const schema::NewestEntry& newest);
    void bound();
    void takeEntries(Step& step);
    bool take(std::uint64_t sum);
    bool mayWrite() const;
    void schedule();
    void write();
    void separate(const Step& mixed);
    void answered(const std::optional<std::string>& error);
    std::vector<schema::RecordedChange> changes() const;
    std::vector<ovsdb::Json> entry() const;

    const std::string m_host;
    const ovsdb::TableCache& m_tables;
    tessera::net::EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const Send m_send;
    const std::function<std::chrono::system_clock::time_point()> m_wallClock;

    bool m_served = false;
    bool m_begun = false;       // the server's state is known
    std::uint64_t m_sum = 0;    // of the rows
    std::uint64_t m_told = 0;   // what it would be if all were told
    std::int32_t m_newest = 0;  // entry
    Rows m_rows;                // that the message changes
    std::uint64_t m_before = 0; // the sum before the message
    std::deque<Step> m_steps;

    bool m_underWay = false;  // a transaction
    bool m_forbidden = false; // on this connection, to write
    std::string m_problem;    // the log has it
    Clock::time_point m_begunAt{};
    Clock::time_point m_othersTell{}; // when there was last an entry that others have written, of other changes
    Clock::time_point m_next{};       // no entry before
    tessera::net::EventDispatcher::State::TimerId m_timer = 0;
};

} // namespace zol::cfg
