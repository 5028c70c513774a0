#include "platform/event_dispatcher.hpp"

#include "platform_fake/device.hpp"
#include "platform_fake/journal.hpp"

#include <csignal>
#include <functional>

namespace tessera::net
{

class EventDispatcher::State
{
};

EventDispatcher::EventDispatcher() : m_state(std::make_unique<State>())
{
    if (fake::device().onDispatcherConstruct)
        fake::device().onDispatcherConstruct();
    fake::journal().note({"EventDispatcher()"});
}

EventDispatcher::~EventDispatcher()
{
    fake::journal().note({"~EventDispatcher()"});
}

bool EventDispatcher::handleEvents()
{
    fake::journal().note({"EventDispatcher::handleEvents()"});
    fake::Device& device = fake::device();
    if (device.script.empty())
        device.thenSignal(SIGTERM);
    const std::function<bool()> step = device.script.front();
    device.script.pop_front();
    return step();
}

} // namespace tessera::net
