#include "platform_linux/queue/own_chains.hpp"

#include "ebtables/allowed_forms.hpp"

namespace ebtables
{

OwnChains::OwnChains(const std::set<std::string>& chains)
{
    for (const std::string& chain : chains) {
        if (isFilterChain(chain))
            m_chains.insert(chain);
    }
}

bool OwnChains::isOurs(const std::string& chain) const
{
    return !isFilterChain(chain) || m_chains.contains(chain);
}

bool OwnChains::mayCarryOut(const Command& command) const
{
    return command.kind == CommandKind::NewChain || (isOurs(command.chain) && isOurs(command.rule.target));
}

void OwnChains::note(const Command& command)
{
    expect(command);
    if (command.kind == CommandKind::DeleteChain)
        m_chains.erase(command.chain);
}

void OwnChains::expect(const Command& command)
{
    if (command.kind == CommandKind::NewChain && isFilterChain(command.chain))
        m_chains.insert(command.chain);
}

} // namespace ebtables
