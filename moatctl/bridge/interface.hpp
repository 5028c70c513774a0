// What this machine, or the network namespace that we are in, has of an interface.
#pragma once

#include <string>

namespace moatctl
{

enum class InterfaceState {
    Port, // of a bridge
    Missing,
    Bridge,
    NoPort, // anything else
};

// Asks the kernel. Port where that cannot be asked: nothing is known to be wrong.
InterfaceState interfaceHere(const std::string& name);

} // namespace moatctl
