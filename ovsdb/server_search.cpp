#include "ovsdb/server_search.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/schema_check.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <exception>
#include <poll.h>
#include <utility>

namespace ovsdb
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string databaseAmong(const RpcMessage& listed, const std::string& name, const std::string& wanted)
{
    if (listed.error) // an older server
        return wanted.empty() ? name : wanted;
    return chooseDatabase(listed.result, name, wanted, "; --database NAME says which");
}

// One server on its way to being found; tried again, after a pause, when it fails.
class Candidate
{
public:
    Candidate(const Server& server, const std::string& database, const std::string& wanted, bool oneOfSeveral)
        : m_server(server), m_database(database), m_wanted(wanted), m_oneOfSeveral(oneOfSeveral)
    {
        open();
    }

    bool failed() const { return m_error != nullptr; }
    // No other attempt will end otherwise.
    bool hopeless() const { return m_hopeless; }
    bool found() const
    {
        return !failed() && !m_found.database.empty() && (!m_oneOfSeveral || m_found.state.leads(m_found.database));
    }
    Clock::time_point nextAttempt() const { return m_hopeless ? Clock::time_point::max() : m_failed + pause; }

    pollfd interest() const { return m_found.stream->interest(!m_found.session.output().empty()); }

    void open()
    {
        m_error = nullptr;
        guard([this] {
            m_found.stream = m_server.open();
            m_found.server = m_server.name;
            m_listRequest = m_found.session.request("list_dbs", Json::Array());
            if (m_oneOfSeveral)
                m_found.state.begin(m_found.session);
        });
    }

    void goOn()
    {
        guard([this] {
            if (!m_found.session.output().empty())
                m_found.session.consumed(m_found.stream->write(m_found.session.output()));
            do
                m_found.session.receive(m_found.stream->read());
            while (m_found.stream->hasMore());
            while (auto message = m_found.session.next())
                take(*message);
        });
    }

    std::string whyNot() const
    {
        if (failed())
            return m_reason;
        if (!m_found.state.known() || m_found.database.empty())
            return "no answer";
        return m_found.state.connected(m_found.database) ? "does not lead" : "has no majority";
    }
    const Server& server() const { return m_server; }
    void rethrow() const { std::rethrow_exception(m_error); }
    ServerFound take() { return std::move(m_found); }

private:
    static constexpr milliseconds pause{100};

    void take(const RpcMessage& message)
    {
        if (m_found.state.take(message))
            return;
        if (message.row || !message.method.empty() || message.id != m_listRequest)
            throw ProtocolError("unexpected message of the server");
        m_found.database = databaseAmong(message, m_database, m_wanted);
    }

    template <typename Function>
    void guard(const Function& function)
    {
        try {
            function();
        } catch (const Error& error) {
            m_hopeless = dynamic_cast<const ForeignServerError*>(&error) != nullptr ||
                         dynamic_cast<const SchemaError*>(&error) != nullptr;
            m_failed = Clock::now();
            m_error = std::current_exception();
            m_reason = error.what();
            m_found = {};
        }
    }

    const Server& m_server;
    const std::string& m_database;
    const std::string& m_wanted;
    const bool m_oneOfSeveral;
    ServerFound m_found;
    std::int64_t m_listRequest = 0;
    Clock::time_point m_failed;
    std::exception_ptr m_error;
    std::string m_reason;
    bool m_hopeless = false;
};

class Search
{
public:
    Search(const std::vector<Server>& servers, const std::string& database, const std::string& wanted,
           milliseconds patience, const std::function<void()>& whileWaiting)
        : m_patience(patience), m_end(Clock::now() + patience), m_whileWaiting(whileWaiting)
    {
        for (const Server& server : servers)
            m_candidates.push_back(std::make_unique<Candidate>(server, database, wanted, servers.size() > 1));
    }

    ServerFound run()
    {
        for (;;) {
            for (const auto& candidate : m_candidates) {
                if (candidate->found())
                    return candidate->take();
            }
            if (m_candidates.size() == 1 && m_candidates.front()->failed())
                m_candidates.front()->rethrow();
            if (std::ranges::all_of(m_candidates, [](const auto& candidate) { return candidate->hopeless(); }))
                throw ConnectionError(reasons());
            if (Clock::now() >= m_end)
                giveUp();
            await();
        }
    }

private:
    // Until something has come, the time is over, or one of those that failed is to be tried again.
    void await()
    {
        Clock::time_point until = m_end;
        if (m_whileWaiting) {
            m_whileWaiting();
            until = std::min(until, Clock::now() + glance);
        }
        std::vector<pollfd> events;
        std::vector<Candidate*> waiting;
        for (const auto& candidate : m_candidates) {
            if (candidate->failed() && candidate->nextAttempt() <= Clock::now())
                candidate->open();
            if (candidate->failed()) {
                until = std::min(until, candidate->nextAttempt());
                continue;
            }
            events.push_back(candidate->interest());
            waiting.push_back(candidate.get());
        }
        const auto left = std::chrono::ceil<milliseconds>(until - Clock::now()).count();
        if (poll(events.data(), events.size(), static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX))) < 0 &&
            errno != EINTR)
            throw ConnectionError("waiting for the configuration server failed");
        for (std::size_t i = 0; i < events.size(); ++i) {
            if (events[i].revents != 0)
                waiting[i]->goOn();
        }
    }

    std::string reasons() const
    {
        std::string text;
        for (const auto& candidate : m_candidates)
            text += (text.empty() ? "" : "; ") + candidate->server().name + ": " + candidate->whyNot();
        return "no leader among the configuration servers: " + text;
    }

    [[noreturn]] void giveUp() const
    {
        const std::string time = std::to_string(m_patience.count()) + " ms";
        throw TimeoutError(m_candidates.size() == 1 ? "no answer from the configuration server within " + time
                                                    : reasons() + " (within " + time + ')');
    }

    static constexpr milliseconds glance{100};

    const milliseconds m_patience;
    const Clock::time_point m_end;
    const std::function<void()>& m_whileWaiting;
    std::vector<std::unique_ptr<Candidate>> m_candidates;
};

} // namespace

ServerFound findServer(const std::vector<Server>& servers, const std::string& database, const std::string& wanted,
                       milliseconds patience, const std::function<void()>& whileWaiting)
{
    return Search(servers, database, wanted, patience, whileWaiting).run();
}

} // namespace ovsdb
