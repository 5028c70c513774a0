#include "compiled/mark.hpp"

#include "compiled/hash.hpp"

namespace compiled
{

namespace
{

ebtables::Origin valid(std::uint64_t hash)
{
    return hash == ebtables::noOrigin ? 1 : hash;
}

} // namespace

Marker::Marker(std::string_view chain) : m_chain(hashOf(chain)) {}

ebtables::Origin Marker::rule(std::string_view rule)
{
    std::uint64_t found = hashOf(rule, hashOf(" ", m_chain));
    while (!m_given.insert(valid(found)).second)
        found = hashOf("again", found);
    return valid(found);
}

ebtables::Origin Marker::policy(std::string_view policy) const
{
    return valid(hashOf(policy, hashOf(" policy ", m_chain)));
}

void mark(ebtables::Table& table)
{
    for (ebtables::Chain& chain : table.chains) {
        Marker marker(chain.name);
        for (ebtables::TableRule& rule : chain.rules)
            rule.origin = marker.rule(rule.rule ? ebtables::toText(*rule.rule) : rule.text);
        chain.policyOrigin = marker.policy(chain.policy);
    }
}

} // namespace compiled
