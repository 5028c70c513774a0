// The rest of a device in memory: what its daemon control, event loop and notification client see and do, so that the
// daemon's entry function can be driven by a script.
//
// The event loop takes one step of the script per turn. When the script is at its end it raises SIGTERM, so a
// daemon under test always comes to its stop. One thread.
#pragma once

#include "platform_fake/memory_tables.hpp"
#include "platform_fake/recording_queue.hpp"

#include <deque>
#include <functional>
#include <set>
#include <string>

namespace fake
{

struct Device {
    // Whether the PID file names a running process.
    bool pidFileOccupied = false;

    // What the notification client hands to the handler.
    MemoryTables tables;
    RecordingQueue queue;

    // Each is called, when set, at the start of the operation and may throw.
    std::function<void()> onDispatcherConstruct;
    std::function<void()> onNotificationHandlerConstruct;
    std::function<void()> onInitialize;
    std::function<void()> onProcess;

    // One turn of the event loop each: what happens while it waits, and what handleEvents then returns.
    std::deque<std::function<bool()>> script;

    // Steps for the script.

    // The client has connected: process delivers all tables under the empty name.
    void thenConnect();

    // The tables changed: process delivers each of them once, in the order in which the handler subscribed to them,
    // then one commitToSystem. The two tables of the bridge filters count as one.
    void thenNotify(std::set<std::string> tableNames);

    // Events that do not concern the configuration; process finds nothing to do.
    void thenWakeUp();

    // A signal arrives while waiting.
    void thenSignal(int signalNumber);

    // Waiting fails: action throws.
    void thenThrow(std::function<void()> action);

    // Notifications that process has not delivered yet: the changed tables of each, none of them after connecting.
    std::deque<std::set<std::string>> pending;
};

// The process's one device. A test starts with a new one by assigning Device().
Device& device();

} // namespace fake
