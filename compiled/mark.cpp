#include "compiled/mark.hpp"

namespace compiled
{

namespace
{

// FNV-1a.
std::uint64_t hash(std::string_view text, std::uint64_t begin)
{
    for (const char c : text)
        begin = (begin ^ static_cast<std::uint8_t>(c)) * 0x100000001b3;
    return begin;
}

ebtables::Origin valid(std::uint64_t hash)
{
    return hash == ebtables::noOrigin ? 1 : hash;
}

} // namespace

Marker::Marker(std::string_view chain) : m_chain(hash(chain, 0xcbf29ce484222325)) {}

ebtables::Origin Marker::rule(std::string_view rule)
{
    std::uint64_t found = hash(rule, hash(" ", m_chain));
    while (!m_given.insert(valid(found)).second)
        found = hash("again", found);
    return valid(found);
}

ebtables::Origin Marker::policy(std::string_view policy) const
{
    return valid(hash(policy, hash(" policy ", m_chain)));
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
