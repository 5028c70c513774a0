// What this machine, or the network namespace that we are in, has of an interface.
#pragma once

#include <string>
#include <vector>

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

// The ports of all bridges here. Those that the kernel tells of.
std::vector<std::string> bridgePortsHere();

} // namespace moatctl
