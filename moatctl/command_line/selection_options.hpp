// Which frames, by what the kernel can tell by a rule: on the command line.
#pragma once

#include "ebtables/command.hpp"
#include "moatctl/command_line/options.hpp"

#include <string>

namespace moatctl
{

struct SelectionOptions {
    std::string in, out, sourceMac, destinationMac, vlan; // empty: not given
    std::string ethertype, source, destination, protocol, port, sourcePort;
    bool toDevice = false;
};

// --in, --out, --src-mac and so on; the options must outlive the parsing.
void addSelectionOptions(const Command& command, SelectionOptions& options);

// The matches of a rule for such frames. Throws Failure(BadInput), one line, when a value is none of its kind or two do
// not go together.
ebtables::Rule ruleOf(const SelectionOptions& options);

} // namespace moatctl
