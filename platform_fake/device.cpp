#include "platform_fake/device.hpp"

#include <csignal>
#include <utility>

namespace fake
{

void Device::thenConnect()
{
    thenNotify({});
}

void Device::thenNotify(std::set<std::string> tableNames)
{
    script.push_back([tableNames = std::move(tableNames)] {
        device().pending.push_back(tableNames);
        return true;
    });
}

void Device::thenWakeUp()
{
    script.push_back([] { return true; });
}

void Device::thenSignal(int signalNumber)
{
    script.push_back([signalNumber] {
        std::raise(signalNumber);
        return false;
    });
}

void Device::thenThrow(std::function<void()> action)
{
    script.push_back([action = std::move(action)] {
        action();
        return false;
    });
}

Device& device()
{
    static Device instance;
    return instance;
}

} // namespace fake
