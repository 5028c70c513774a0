// The way into the command queue: which lines it takes at all.
#pragma once

#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/own_chains.hpp"

#include <string_view>

namespace zol::cfg
{

// A line passes when ebtables can take it, it has one of the forms that the handler makes (ebtables/allowed_forms.hpp),
// and every filter's chain in it is ours.
//
// What is ours at the moment a line is queued is a forecast: that every chain of a line before it can be made. Whoever
// carries them out asks an OwnChains again, command by command, for a chain that somebody else turns out to have.
class Gate
{
public:
    // With anyForm, a line passes that ebtables can take: for a handler that makes other lines.
    explicit Gate(bool anyForm) : m_anyForm(anyForm) {}

    // The commands of the line, or why it does not pass.
    ebtables::ParsedLine take(std::string_view line);

    // Everything that passed was carried out or refused, and these chains of filters are ours now.
    void settle(ebtables::OwnChains chains) { m_chains = std::move(chains); }

private:
    bool m_anyForm;
    ebtables::OwnChains m_chains;
};

} // namespace zol::cfg
