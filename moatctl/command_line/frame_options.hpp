// A frame described on the command line.
#pragma once

#include "moatctl/bridge/frame.hpp"
#include "moatctl/command_line/options.hpp"

#include <string>

namespace moatctl
{

struct FrameOptions {
    std::string in, out, sourceMac, destinationMac, vlan, vlanPriority; // empty: not given
    std::string ethertype, source, destination, protocol, port, sourcePort;
    bool fragment = false;
};

// What a frame is like when that is not said, in words that follow "without it".
struct Unsaid {
    std::string vlan;
    std::string vlanPriority;
};

// --src-mac, --dst-mac and so on, all but the ports; the options must outlive the parsing.
void addFrameOptions(const Command& command, FrameOptions& options, const Unsaid& unsaid);

// Throws Failure(BadInput), one line, when a value is none of its kind or two do not go together.
Frame frameOf(const FrameOptions& options);

// In one line, for a person.
std::string toText(const Frame& frame);
// Likewise, without the ports; "" when nothing is known.
std::string contentsOf(const Frame& frame);

} // namespace moatctl
