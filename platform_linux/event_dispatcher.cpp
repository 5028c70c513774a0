#include "platform_linux/event_dispatcher.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace tessera::net
{

namespace
{

[[noreturn]] void throwErrno(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// Signals that report a fault of the program itself are never held back: the kernel ends the process anyway.
sigset_t heldBackSignals()
{
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
        sigdelset(&set, fault);
    return set;
}

} // namespace

EventDispatcher::State::State()
{
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_epoll < 0)
        throwErrno("epoll_create1");
    const sigset_t held = heldBackSignals();
    pthread_sigmask(SIG_BLOCK, &held, &m_maskBefore);
    m_waitingMask = m_maskBefore;
}

EventDispatcher::State::~State()
{
    pthread_sigmask(SIG_SETMASK, &m_maskBefore, nullptr);
    close(m_epoll);
}

void EventDispatcher::State::addDescriptor(int descriptor, std::uint32_t epollEvents, DescriptorCallback callback)
{
    epoll_event event{};
    event.events = epollEvents;
    event.data.fd = descriptor;
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event) != 0)
        throwErrno("epoll_ctl");
    m_descriptors[descriptor] = std::make_shared<DescriptorCallback>(std::move(callback));
}

void EventDispatcher::State::modifyDescriptor(int descriptor, std::uint32_t epollEvents)
{
    epoll_event event{};
    event.events = epollEvents;
    event.data.fd = descriptor;
    if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, descriptor, &event) != 0)
        throwErrno("epoll_ctl");
}

void EventDispatcher::State::removeDescriptor(int descriptor)
{
    m_descriptors.erase(descriptor);
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, descriptor, nullptr);
}

void EventDispatcher::State::addSignal(int number, std::function<void()> callback)
{
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    const int descriptor = signalfd(-1, &one, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0)
        throwErrno("signalfd");
    try {
        addDescriptor(descriptor, EPOLLIN, [descriptor, callback = std::move(callback)](std::uint32_t) {
            signalfd_siginfo information;
            if (read(descriptor, &information, sizeof information) == sizeof information)
                callback();
        });
    } catch (...) {
        close(descriptor);
        throw;
    }
    m_signalDescriptors[number] = descriptor;
    sigaddset(&m_waitingMask, number);
    // For one that comes when nobody looks for it any more. Ignoring the signal would lose one that is held back now.
    std::signal(number, [](int) {});
}

void EventDispatcher::State::removeSignal(int number)
{
    const auto found = m_signalDescriptors.find(number);
    if (found == m_signalDescriptors.end())
        return;
    removeDescriptor(found->second);
    close(found->second);
    m_signalDescriptors.erase(found);
}

EventDispatcher::State::TimerId EventDispatcher::State::startTimer(std::chrono::milliseconds delay,
                                                                   std::function<void()> callback)
{
    const TimerId timer = ++m_lastTimer;
    m_timers.emplace(std::pair(Clock::now() + delay, timer), std::move(callback));
    return timer;
}

void EventDispatcher::State::stopTimer(TimerId timer)
{
    std::erase_if(m_timers, [timer](const auto& entry) { return entry.first.second == timer; });
}

int EventDispatcher::State::timeoutMs() const
{
    if (m_timers.empty())
        return -1;
    const auto left = m_timers.begin()->first.first - Clock::now();
    // Rounded up, so that the timer is due when the wait ends.
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<decltype(milliseconds)>(milliseconds, 0, INT_MAX));
}

bool EventDispatcher::State::runDueTimers()
{
    const Clock::time_point now = Clock::now();
    bool ran = false;
    // Taken out one at a time: a callback may stop the others, and those that it starts are due later.
    while (!m_timers.empty() && m_timers.begin()->first.first <= now) {
        auto timer = m_timers.extract(m_timers.begin());
        timer.mapped()();
        ran = true;
    }
    return ran;
}

bool EventDispatcher::State::handleEvents()
{
    std::array<epoll_event, 16> events;
    const int count = epoll_pwait(m_epoll, events.data(), static_cast<int>(events.size()), timeoutMs(), &m_waitingMask);
    if (count < 0) {
        if (errno == EINTR)
            return false;
        throwErrno("epoll_pwait");
    }
    // A wait that finds events at once does not look at signals: while events never end, none would get through.
    const timespec noTime{};
    ppoll(nullptr, 0, &noTime, &m_waitingMask);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events.at(static_cast<std::size_t>(i));
        const auto found = m_descriptors.find(event.data.fd);
        if (found == m_descriptors.end())
            continue; // removed by a callback of this turn
        const std::shared_ptr<DescriptorCallback> callback = found->second;
        (*callback)(event.events);
    }
    const bool timersRan = runDueTimers();
    return count > 0 || timersRan;
}

EventDispatcher::EventDispatcher() : m_state(std::make_unique<State>()) {}

EventDispatcher::~EventDispatcher() = default;

bool EventDispatcher::handleEvents()
{
    return m_state->handleEvents();
}

} // namespace tessera::net
