#include "platform/notification_handler.hpp"

#include "ovsdb/subscription.hpp"
#include "platform/config_handler.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/delivered_rows.hpp"
#include "platform_linux/delivery_names.hpp"
#include "platform_linux/device_row.hpp"
#include "platform_linux/event_dispatcher.hpp"
#include "platform_linux/history_watch.hpp"
#include "platform_linux/queue/transaction_queue.hpp"
#include "platform_linux/server_link.hpp"
#include "platform_linux/service_manager.hpp"
#include "platform_linux/signals.hpp"
#include "platform_linux/start_settings.hpp"
#include "platform_linux/trial_watch.hpp"
#include "schema/device.hpp"
#include "schema/history.hpp"
#include "schema/server/recorded_change.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <list>
#include <malloc.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zol::cfg
{

namespace
{

constexpr const char* startLabel = "start";

std::string hostName()
{
    std::array<char, HOST_NAME_MAX + 1> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

using tessera::net::EventDispatcher;

} // namespace

class NotificationHandler::State
{
public:
    State(std::string socketPath, EventDispatcher& dispatcher, const std::string& clientName, bool failWithoutServer,
          int requestTimeoutSeconds, int reconnectIntervalMs, bool reconnect)
        : m_settings{.socketPath = std::move(socketPath),
                     .requestTimeout = std::chrono::seconds(requestTimeoutSeconds),
                     .reconnectInterval = std::chrono::milliseconds(reconnectIntervalMs),
                     .reconnect = reconnect},
          m_dispatcher(dispatcher.state()),
          m_logModule(ZOL_Sysloglevel_registerModul(clientName.c_str())),
          m_failWithoutServer(failWithoutServer)
    {
        if (m_queue.watchedDescriptor() >= 0)
            m_dispatcher.addDescriptor(m_queue.watchedDescriptor(), EPOLLIN, [this](std::uint32_t) {
                m_queue.handleChange();
                queueHasRun();
            });
        m_dispatcher.addSignal(platform::reloadSignal(), [this] { reload(); });
        m_dispatcher.addSignal(platform::handOverSignal(), [this] { handOver(); });
    }

    ~State()
    {
        if (m_device && !m_handedOver)
            m_device->stop();
        m_dispatcher.removeSignal(platform::reloadSignal());
        m_dispatcher.removeSignal(platform::handOverSignal());
        m_dispatcher.stopTimer(m_retryTimer);
        m_dispatcher.stopTimer(m_waitTimer);
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
        m_tableNames.assign(names.begin(), names.end());
        std::vector<std::string> subscribed = m_tableNames;
        subscribed.emplace_back(schema::changeTable);
        subscribed.emplace_back(schema::trialTable);
        subscribed.emplace_back(schema::historyTable);
        m_link.emplace(m_settings, m_dispatcher, m_logModule, subscribed,
                       [this](ovsdb::Subscription::Progress progress) { takeOver(std::move(progress)); });
        m_source.emplace(m_link->tables(), m_tableNames, m_logModule);
        m_device.emplace(hostName(), m_dispatcher, m_logModule,
                         [this](ovsdb::Json operation, ServerLink::Answered answered) {
                             m_link->transact(std::move(operation), std::move(answered));
                         });
        m_history.emplace(
            hostName(), m_link->tables(), m_dispatcher, m_logModule,
            [this](std::vector<ovsdb::Json> operations, ServerLink::Answered answered) {
                m_link->transact(std::move(operations), std::move(answered));
            },
            std::chrono::system_clock::now);
        m_link->watchRows([this](const ovsdb::Table& table, const ovsdb::Row* before, const ovsdb::Row* after) {
            m_history->rowChanges(table, before, after);
        });
        m_trial.emplace(
            hostName(), m_link->tables(), m_dispatcher, m_logModule,
            [this](std::vector<ovsdb::Json> operations, const auto& answered) {
                m_link->transact(
                    std::move(operations),
                    [answered](const ovsdb::Json&, const std::optional<std::string>& error) { answered(error); });
            },
            [this](const schema::Trial* trial) { takeBack(trial); }, schema::readClocks);
    }

    void initialize()
    {
        if (m_handler == nullptr)
            throw std::logic_error("no configuration handler is registered");
        prepareStart();
        if (!m_link->start() && m_failWithoutServer)
            throw std::runtime_error("no configuration server at " + m_settings.socketPath);
    }

    void process()
    {
        if (!m_all && m_changedTables.empty()) {
            if (std::exchange(m_numberChanged, false)) {
                chooseForm();
                m_queue.endDelivery();
                queueHasRun();
            }
            return;
        }
        m_numberChanged = false;
        const std::vector<std::string> names =
            m_all ? std::vector<std::string>{""} : deliveryNames(m_tableNames, m_changedTables);
        m_all = false;
        m_changedTables.clear();
        chooseForm();
        deliver(names);
        malloc_trim(0); // what a message, a read and a commit took for a while; the next may be days away
        queueHasRun();
    }

private:
    // Before the first attempt to connect: what holds until there is a configuration.
    void prepareStart()
    {
        const StartSettings settings = StartSettings::fromEnvironment();
        for (const std::string& problem : settings.problems)
            ZOL_Sysloglevel_warning(m_logModule, startLabel, 10, problem);
        if (settings.closed)
            close(settings);
        if (m_manager.waits())
            m_waitTimer = m_dispatcher.startTimer(settings.wait, [this] {
                m_waitTimer = 0;
                ZOL_Sysloglevel_warning(m_logModule, startLabel, 30,
                                        "no configuration is in force yet; the start goes on without it");
                m_manager.isReady("waits for its configuration");
            });
    }

    void close(const StartSettings& settings)
    {
        using Held = TransactionQueue::Held;
        const Held held = m_queue.hold(settings.closingLines());
        if (held == Held::InForce)
            ZOL_Sysloglevel_info(m_logModule, startLabel, 20,
                                 "the bridge is closed until there is a configuration; allowed are " +
                                     std::to_string(settings.ports.size()) + " entries for ports and " +
                                     std::to_string(settings.macs.size()) + " for addresses");
        if (held == Held::NotNeeded)
            ZOL_Sysloglevel_info(m_logModule, startLabel, 21,
                                 "until there is a configuration, the rules of the process before stay");
        scheduleRetry();
    }

    // The service manager hears of the first commit when the kernel has it.
    void tellManager()
    {
        if (!m_manager.waits() || !m_queue.status(0).inStep)
            return;
        m_dispatcher.stopTimer(std::exchange(m_waitTimer, 0));
        m_manager.isReady("the configuration is in force");
    }

    void queueHasRun()
    {
        scheduleRetry();
        tellDevice();
        tellManager();
    }

    void reload()
    {
        ZOL_Sysloglevel_info(m_logModule, startLabel, 40, "looks at the bridge tables and the configuration anew");
        m_queue.look();
        queueHasRun();
        m_link->renew();
    }

    // Ends the process as a stop signal does, but leaves what is in force to the next one.
    void handOver()
    {
        ZOL_Sysloglevel_info(m_logModule, startLabel, 50, "what is in the bridge tables stays for the next process");
        m_handedOver = true;
        m_queue.keep();
        std::raise(SIGTERM);
    }

    void takeOver(ovsdb::Subscription::Progress progress)
    {
        m_numberChanged = progress.changedTables.erase(std::string(schema::changeTable)) != 0 || m_numberChanged;
        const bool historyChanged = progress.changedTables.erase(std::string(schema::historyTable)) != 0;
        const bool trialChanged = progress.changedTables.erase(std::string(schema::trialTable)) != 0;
        if (trialChanged || progress.synchronised)
            m_trial->update(schema::trialOf(m_link->tables()), progress.synchronised);
        if (!progress.changedTables.empty() || historyChanged || trialChanged || progress.synchronised)
            m_history->update(progress.synchronised, m_link->serves(schema::historyTable));
        if (!m_takenBack.empty() && !progress.changedTables.empty())
            progress.changedTables.merge(deliverTakenBack());
        m_source->update(progress.changedTables);
        if (progress.synchronised)
            m_device->setServed(m_link->serves(schema::deviceTable));
        // Delivered even if nothing differs from what was delivered last: every delivery is a read and a commit,
        // so no change waits that an equal read could cancel, and a commit without changes does nothing.
        m_all = m_all || progress.synchronised;
        m_changedTables.merge(progress.changedTables);
    }

    // A trial that is over, and that nobody can put back on the server now; null: that has been done.
    void takeBack(const schema::Trial* trial)
    {
        std::set<std::string> tables = std::exchange(m_tablesTakenBack, {});
        m_takenBack =
            trial == nullptr ? std::vector<schema::RecordedChange>() : schema::parseRecordedChanges(trial->changes);
        tables.merge(deliverTakenBack());
        m_source->update(tables);
        m_changedTables.merge(tables);
    }

    // Returns the tables of which other rows are delivered than the server has.
    std::set<std::string> deliverTakenBack()
    {
        DeliveredRows::Rows rows;
        m_tablesTakenBack.clear();
        for (const std::string& name : m_tableNames) {
            if (std::ranges::none_of(m_takenBack, [&](const auto& change) { return change.table->name == name; }))
                continue;
            rows[name] = schema::rowsBack(m_takenBack, *m_link->tables().find(name), m_link->tables().rows(name));
            m_tablesTakenBack.insert(name);
        }
        m_source->deliverInstead(std::move(rows));
        return m_tablesTakenBack;
    }

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

    // As the row says that is also the change's.
    void chooseForm()
    {
        const auto rows = m_link->tables().rows(schema::changeTable);
        m_queue.setCompiled(!rows.empty() && rows.front().values.text(1) == schema::compiledEngine);
    }

    // After whatever may have changed what is in force.
    void tellDevice()
    {
        if (!m_device)
            return;
        const auto rows = m_link->tables().rows(schema::changeTable);
        QueueStatus status = m_queue.status(schema::maximumNotInForce);
        if (!m_takenBack.empty()) {
            status.inStep = false;
            status.reason = "a change on trial was not confirmed in time and is taken back here";
        }
        const bool none = rows.empty();
        m_device->update(none ? 0 : rows.front().values.integer(0), status, none ? 0 : rows.front().values.integer(2));
    }

    // While the tables cannot be changed, what is wanted waits in the queue.
    void scheduleRetry()
    {
        m_dispatcher.stopTimer(m_retryTimer);
        if (const auto pause = m_queue.retryIn()) {
            m_retryTimer = m_dispatcher.startTimer(*pause, [this] {
                if (m_queue.retry())
                    queueHasRun();
                else
                    scheduleRetry();
            });
        }
    }

    const ServerLink::Settings m_settings;
    EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const bool m_failWithoutServer;

    TransactionQueue m_queue;
    IConfigHandler* m_handler = nullptr;
    std::optional<ServerLink> m_link;
    std::optional<DeliveredRows> m_source; // of the link's tables
    std::optional<DeviceRow> m_device;
    std::optional<HistoryWatch> m_history;
    std::optional<TrialWatch> m_trial;
    std::vector<std::string> m_tableNames; // the handler's
    EventDispatcher::State::TimerId m_retryTimer = 0;

    platform::ServiceManager m_manager = platform::ServiceManager::fromEnvironment();
    EventDispatcher::State::TimerId m_waitTimer = 0; // until somebody is told that the start is done
    bool m_handedOver = false;

    std::vector<schema::RecordedChange> m_takenBack; // of a trial, here
    std::set<std::string> m_tablesTakenBack;

    // Not delivered yet.
    bool m_all = false;
    bool m_numberChanged = false;
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
