// The event loop: there are no events but signals.
#include "platform/event_dispatcher.hpp"

#include <csignal>
#include <memory>

// Set at the start and by SIGHUP, cleared by whoever reads the configuration.
extern volatile std::sig_atomic_t g_configurationIsDue;
volatile std::sig_atomic_t g_configurationIsDue = 1;

namespace tessera::net
{

// Signals are held back but for the wait: one that comes between the caller's test and the wait ends the wait.
class EventDispatcher::State
{
public:
    State()
    {
        std::signal(SIGHUP, [](int) { g_configurationIsDue = 1; });
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &m_before);
    }
    ~State() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void wait() const { sigsuspend(&m_before); }

private:
    sigset_t m_before{};
};

EventDispatcher::EventDispatcher() : m_state(std::make_unique<State>()) {}
EventDispatcher::~EventDispatcher() = default;

bool EventDispatcher::handleEvents()
{
    if (g_configurationIsDue == 0)
        m_state->wait();
    return g_configurationIsDue != 0;
}

} // namespace tessera::net
