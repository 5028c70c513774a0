// What commands have left in the tables that is not undone yet: chains made, rules put into chains of others, policies
// set. And the record of it on disk, from which the next start undoes what a killed process left.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ebtables
{

class Footprint
{
public:
    // Takes in a command that was carried out.
    void note(const Command& command);

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
    struct PlacedRule {
        std::string chain;
        Rule rule;
        bool operator==(const PlacedRule&) const = default;
    };

    std::set<std::string> m_chains;
    std::vector<PlacedRule> m_rules;
    std::set<std::string> m_policies;
};

} // namespace ebtables
