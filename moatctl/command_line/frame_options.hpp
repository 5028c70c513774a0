// A frame described on the command line.
#pragma once

#include "moatctl/bridge/frame.hpp"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace moatctl
{

struct FrameOptions {
    std::string in, out, sourceMac, destinationMac;
    std::optional<int> vlan, vlanPriority;
    std::string ethertype, source, destination, protocol;
    std::optional<int> port, sourcePort;
    bool fragment = false;
};

// --in, --out, --src-mac and so on; the options must outlive the parsing.
void addFrameOptions(CLI::App& app, FrameOptions& options);

// Throws Failure(BadInput), one line, when a value is none of its kind or two do not go together.
Frame frameOf(const FrameOptions& options);

// In one line, for a person.
std::string toText(const Frame& frame);

} // namespace moatctl
