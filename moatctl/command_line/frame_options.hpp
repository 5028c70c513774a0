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

// --in, --out, --src-mac and so on; the options must outlive the parsing.
void addFrameOptions(const Command& command, FrameOptions& options);

// Throws Failure(BadInput), one line, when a value is none of its kind or two do not go together.
Frame frameOf(const FrameOptions& options);

// In one line, for a person.
std::string toText(const Frame& frame);

} // namespace moatctl
