#include "moatctl/bridge/shadow.hpp"
#include "moatctl/check/findings.hpp"

#include <map>
#include <tuple>
#include <utility>

namespace moatctl
{

namespace
{

std::string whyUnreached(const Applied& applied, const Shadowed& shadowed)
{
    const ebtables::Chain& chain = *shadowed.byChain;
    if (shadowed.byRule == nullptr) {
        const Row* row = applied.rowOf(chain.policyOrigin);
        const std::string by = row != nullptr ? nameOf(*row) : "chain " + chain.name;
        return "never reached: " + by + " lets none of its frames through";
    }
    const Row* row = applied.rowOf(shadowed.byRule->origin);
    const std::string by = row != nullptr ? nameOf(*row) : "a rule of chain " + chain.name;
    if (!shadowed.same)
        return "never reached: " + by + " comes first and takes all its frames";
    return shadowed.rule->rule->target == shadowed.byRule->rule->target
               ? "the same as " + by + ", which comes first: one of the two is enough"
               : "contradicts " + by + ", which comes first and takes the same frames";
}

} // namespace

void findUnreached(const Applied& applied, Findings& findings)
{
    // A filter has two jumps; it is out of reach when both are.
    std::map<const Row*, std::size_t> rulesOf;
    for (const ebtables::Chain& chain : applied.table.chains) {
        for (const ebtables::TableRule& rule : chain.rules)
            ++rulesOf[applied.rowOf(rule.origin)];
    }
    for (const Shadowed& shadowed : findShadowed(applied.table)) {
        const Row* row = applied.rowOf(shadowed.rule->origin);
        if (row != nullptr && --rulesOf[row] == 0)
            findings.warning(*row, "", whyUnreached(applied, shadowed));
    }

    // Both work, one after the other, but hardly as meant.
    const auto ports = [](const Row& filter) {
        return std::minmax(filter.text("InInterface"), filter.text("OutInterface"));
    };
    std::map<std::tuple<std::string, std::string, std::string>, const Row*> byForm;
    for (const Row& filter : findings.configuration().rows(TableId::Filters)) {
        if (filter.integer("Enabled") == 0 || findings.hasError(filter))
            continue;
        const auto [first, second] = ports(filter);
        const auto [known, isNew] = byForm.emplace(std::tuple(first, second, filter.text("MatchCriteria")), &filter);
        if (!isNew && known->second->text("Mode") != filter.text("Mode"))
            findings.warning(filter, "Mode",
                             inQuotes(filter.text("Mode")) + ": contradicts " + nameOf(*known->second) +
                                 ", which is about the same ports and MatchCriteria");
    }
}

} // namespace moatctl
