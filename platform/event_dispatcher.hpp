// The daemon's event loop, one turn at a time.
#pragma once

#include <memory>

namespace tessera::net
{

// Waits for what the platform's other objects have registered with it.
//
// While an object lives, signals are held back except while handleEvents waits: one that arrives between
// the caller's test of its stop flag and the wait still ends the wait.
// Threading: one thread, the one that constructs it. Not copied, not moved.
class EventDispatcher
{
public:
    // Throws std::system_error when the kernel refuses the resources.
    EventDispatcher();
    ~EventDispatcher();
    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    // Waits until something happens and handles it. Returns true when there were events, false when a
    // signal ended the wait.
    bool handleEvents();

    // For the platform's own objects: what is behind the pointer is theirs.
    class State;
    State& state() { return *m_state; }

private:
    std::unique_ptr<State> m_state;
};

} // namespace tessera::net
