// Which chains of filters are ours: those that this process has made. The name alone does not say it, since another
// program may have a chain of the same name.
#pragma once

#include "ebtables/command.hpp"

#include <set>
#include <string>
#include <string_view>

namespace ebtables
{

// Follows commands in their order. Plain value.
class OwnChains
{
public:
    OwnChains() = default;
    // Those of the chains that have the name of a filter's.
    explicit OwnChains(const std::set<std::string>& chains);

    // Whether the command leaves alone the chains of filters that are not ours: it neither fills, empties or deletes
    // one nor jumps there. Making one is always tried; the kernel refuses it when somebody else has it.
    bool mayCarryOut(const Command& command) const;

    // Takes in a command that was carried out.
    void note(const Command& command);

    // Takes in a command that is still to be carried out. A chain that it deletes stays ours: the kernel refuses that
    // while another jump to it is left.
    void expect(const Command& command);

private:
    bool isOurs(const std::string& chain) const;

    std::set<std::string> m_chains;
};

// What a log line says of a command that may not be carried out.
inline constexpr std::string_view notOurChain = "the chain is not one that this process has made";

} // namespace ebtables
