// The client of the configuration server: keeps a copy of the subscribed tables and tells the registered
// handler what changed.
#pragma once

#include <memory>
#include <string>

namespace tessera::net
{
class EventDispatcher;
}

namespace zol::cfg
{

class IConfigHandler;

// Connects through a local socket, registers its descriptors with the dispatcher, and owns the command queue
// that it hands to the handler's commitToSystem. Lines that are still queued when it is destroyed (a handler's
// clean-up) are carried out first.
// Ownership: refers to dispatcher and handler, which the caller owns; the dispatcher outlives it, the handler may
// go before it. Threading: the dispatcher's thread.
class NotificationHandler
{
public:
    // socketPath: the server's local socket. clientName: used in log lines; copied.
    // failWithoutServer: initialize throws when the server cannot be reached (true) or keeps trying (false).
    // requestTimeoutSeconds: how long an answer, or the rest of a message begun, may take before the connection
    // is built again. reconnectIntervalMs: pause between two attempts to connect. reconnect: whether a lost
    // connection is built again.
    NotificationHandler(const std::string& socketPath, tessera::net::EventDispatcher& dispatcher,
                        const std::string& clientName, bool failWithoutServer, int requestTimeoutSeconds,
                        int reconnectIntervalMs, bool reconnect);
    ~NotificationHandler();
    NotificationHandler(const NotificationHandler&) = delete;
    NotificationHandler& operator=(const NotificationHandler&) = delete;

    // Registers the handler and asks it for its tables. One handler, before initialize.
    void registerConfigHandler(IConfigHandler* handler);

    // Connects and subscribes. Throws std::runtime_error when failWithoutServer is set and there is no server.
    void initialize();

    // Processes what arrived: loadFromConfig with the name of each table that changed (the two of the bridge filters,
    // which are read together, count as one) or once with the empty name after connecting, then one commitToSystem,
    // then the queued lines are carried out. Does nothing until the first full copy of the tables has arrived, and when
    // nothing changed.
    void process();

private:
    class State;
    std::unique_ptr<State> m_state;
};

} // namespace zol::cfg
