// What commands have left in the tables that is not undone yet: chains made, rules put into chains of others, policies
// set. And the record of it on disk, from which the next start undoes what a killed process left.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ebtables
{

class Footprint
{
public:
    // Takes in a command that was carried out.
    void note(const Command& command);

    // Takes in what is there: a chain of ours, a rule in a chain that is not (as its text), a built-in chain's policy.
    void addChain(std::string_view chain) { m_chains.emplace(chain); }
    void addRule(std::string_view chain, std::string_view rule);
    void addPolicy(std::string_view chain) { m_policies.emplace(chain); }

    bool hasChain(const std::string& chain) const { return m_chains.contains(chain); }
    bool hasPolicy(std::string_view chain) const { return m_policies.contains(chain); }
    unsigned rules(std::string_view chain, std::string_view rule) const; // how many such

    // Everything of the other one as well, rules as often as the one that has them more often.
    void unite(const Footprint& other);

    const std::set<std::string>& chains() const { return m_chains; }
    bool empty() const { return m_chains.empty() && m_rules.empty() && m_policies.empty(); }

    // The commands that take out of the table whatever of this is really in it. Nothing else is touched.
    std::vector<Command> undo(const Table& table) const;

    // A text that ends in a checksum, and back. Nothing when the text is damaged or from another network namespace.
    std::string toText(std::string_view networkNamespace) const;
    static std::optional<Footprint> fromText(std::string_view text, std::string_view networkNamespace,
                                             std::string& reason);

    bool operator==(const Footprint&) const = default;

private:
    using PlacedRule = std::pair<std::string, std::string>; // chain and text

    std::set<std::string> m_chains;
    std::map<PlacedRule, unsigned> m_rules; // how often
    std::set<std::string, std::less<>> m_policies;
};

} // namespace ebtables
