#include "platform/notification_handler.hpp"

#include "platform/config_handler.hpp"
#include "platform_fake/device.hpp"
#include "platform_fake/journal.hpp"

#include <list>
#include <set>
#include <string>
#include <vector>

namespace zol::cfg
{

class NotificationHandler::State
{
public:
    IConfigHandler* handler = nullptr;
    std::list<std::string> tableNames;
};

namespace
{

// The names to deliver when these tables changed, all of them where none is named.
std::vector<std::string> namesToDeliver(const std::list<std::string>& subscribed, const std::set<std::string>& changed)
{
    if (changed.empty())
        return {""};
    std::vector<std::string> names;
    for (const std::string& name : subscribed) {
        // One call reads both tables of the bridge filters.
        const bool isRead = name == "MoatKeeperBridgeFilterRules" && changed.contains("MoatKeeperBridgeFilters");
        if (changed.contains(name) && !isRead)
            names.push_back(name);
    }
    return names;
}

} // namespace

NotificationHandler::NotificationHandler(const std::string& socketPath, tessera::net::EventDispatcher&,
                                         const std::string& clientName, bool failWithoutServer,
                                         int requestTimeoutSeconds, int reconnectIntervalMs, bool reconnect)
    : m_state(std::make_unique<State>())
{
    if (fake::device().onNotificationHandlerConstruct)
        fake::device().onNotificationHandlerConstruct();
    const auto text = [](bool on) { return on ? "true" : "false"; };
    fake::journal().note({"NotificationHandler(\"", socketPath, "\", \"", clientName, "\", ", text(failWithoutServer),
                          ", ", std::to_string(requestTimeoutSeconds), ", ", std::to_string(reconnectIntervalMs), ", ",
                          text(reconnect), ")"});
}

NotificationHandler::~NotificationHandler()
{
    fake::journal().note({"~NotificationHandler()"});
}

void NotificationHandler::registerConfigHandler(IConfigHandler* handler)
{
    fake::journal().note({"NotificationHandler::registerConfigHandler()"});
    m_state->handler = handler;
    handler->getTableNames(m_state->tableNames);
}

void NotificationHandler::initialize()
{
    fake::journal().note({"NotificationHandler::initialize()"});
    if (fake::device().onInitialize)
        fake::device().onInitialize();
}

void NotificationHandler::process()
{
    fake::journal().note({"NotificationHandler::process()"});
    fake::Device& device = fake::device();
    if (device.onProcess)
        device.onProcess();
    while (m_state->handler != nullptr && !device.pending.empty()) {
        const std::set<std::string> changed = device.pending.front();
        device.pending.pop_front();
        for (const std::string& tableName : namesToDeliver(m_state->tableNames, changed))
            m_state->handler->loadFromConfig(device.tables, tableName);
        m_state->handler->commitToSystem(device.tables, &device.queue);
    }
}

} // namespace zol::cfg
