// What is behind tessera::net::EventDispatcher: descriptors and timers of the platform's own objects.
#pragma once

#include "platform/event_dispatcher.hpp"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace tessera::net
{

// Threading: the dispatcher's thread only. Callbacks run inside handleEvents; they may add and remove descriptors and
// timers, their own included. An exception of a callback leaves handleEvents.
class EventDispatcher::State
{
public:
    using Clock = std::chrono::steady_clock;
    using TimerId = std::uint64_t; // never 0
    using DescriptorCallback = std::function<void(std::uint32_t epollEvents)>;

    State();
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // Calls back whenever the descriptor has one of these epoll events (level-triggered), or an error or a hang-up.
    // The descriptor stays the caller's, who removes it before closing it. Throws std::system_error.
    void addDescriptor(int descriptor, std::uint32_t epollEvents, DescriptorCallback callback);
    void modifyDescriptor(int descriptor, std::uint32_t epollEvents);
    void removeDescriptor(int descriptor);

    // Calls back when this signal comes: between other callbacks, never in the middle of one. Until it is removed it
    // ends no wait in any other way. Throws std::system_error.
    void addSignal(int number, std::function<void()> callback);
    void removeSignal(int number);

    // Calls back once, not before the time is over. A timer costs nothing but the wait's time limit.
    TimerId startTimer(std::chrono::milliseconds delay, std::function<void()> callback);
    void stopTimer(TimerId timer); // one that has run, or 0, is no error

    bool handleEvents();

private:
    int timeoutMs() const;
    bool runDueTimers();

    sigset_t m_maskBefore{};
    sigset_t m_waitingMask{}; // as before, but for the signals that are called back for
    int m_epoll = -1;
    std::map<int, std::shared_ptr<DescriptorCallback>> m_descriptors;
    std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>> m_timers; // by time, then in order of start
    TimerId m_lastTimer = 0;
    std::map<int, int> m_signalDescriptors; // by the signal's number
};

} // namespace tessera::net
