#include "moatctl/bridge/held_rules.hpp"

#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/walk.hpp"
#include "nftables/connection.hpp"
#include "nftables/expressions.hpp"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

// The kernel's table, and the handles of its rules: those of a chain's rules in their order, and its policy's.
struct Held {
    ebtables::Table table;
    std::map<std::string, std::vector<std::uint64_t>> rules;
    std::map<std::string, std::uint64_t> policies;
};

void take(const nftables::RuleView& view, Held& held)
{
    ebtables::Chain* chain = held.table.find(view.chain);
    nftables::Expressions expressions;
    if (chain == nullptr || !view.readExpressions(expressions))
        return;
    std::optional<ebtables::Rule> rule = nftables::decode(expressions);
    if (view.isChainPolicy) {
        chain->policy = rule ? rule->target : "ACCEPT";
        held.policies[chain->name] = view.handle;
        return;
    }
    std::string text = rule ? ebtables::toText(*rule) : "a rule that moatkeeper does not make";
    chain->rules.push_back({std::move(text), std::move(rule), {}, ebtables::noOrigin});
    held.rules[chain->name].push_back(view.handle);
}

std::optional<Held> read(std::string& reason)
{
    constexpr int attempts = 10; // while others change the tables
    nftables::Connection connection;
    for (int attempt = 1;; ++attempt) {
        Held held;
        std::vector<nftables::ChainView> chains;
        std::uint64_t number = 0;
        nftables::Result result = connection.readChains(chains, number);
        for (const nftables::ChainView& chain : chains)
            held.table.chains.push_back({chain.name, chain.builtIn ? chain.policy : "RETURN", {}, ebtables::noOrigin});
        bool settled = true;
        if (result.answer == nftables::Answer::Done && number != 0)
            result = connection.readRules([&](const nftables::RuleView& rule) { take(rule, held); }, settled);
        if (result.answer == nftables::Answer::Done && (settled || attempt == attempts))
            return held;
        if (result.answer != nftables::Answer::Done) {
            reason = result.reason;
            return std::nullopt;
        }
    }
}

HeldRule described(const Entry& entry, const Applied& configured)
{
    HeldRule rule{.chain = entry.chain, .position = entry.position, .text = entry.text, .row = {}, .table = {}};
    const Row* row = configured.rowOf(entry.origin);
    rule.isDaemons = row == nullptr && entry.origin != ebtables::noOrigin;
    if (row == nullptr)
        return rule;
    rule.row = nameOf(*row);
    rule.table = row->table->name;
    rule.id = row->id();
    return rule;
}

} // namespace

bool HeldRules::load(const Applied& configured, std::string& reason)
{
    const std::optional<Held> held = read(reason);
    if (!held)
        return false;
    for (const Entry& entry : compare(configured.table, held->table)) {
        if (entry.state == EntryState::Missing)
            continue;
        if (entry.position != 0) {
            const auto handles = held->rules.find(entry.chain);
            if (handles != held->rules.end() && entry.position <= handles->second.size())
                m_rules[handles->second[entry.position - 1]] = described(entry, configured);
            continue;
        }
        HeldRule policy = described(entry, configured);
        if (const auto handle = held->policies.find(entry.chain); handle != held->policies.end())
            m_rules[handle->second] = policy;
        m_policies[entry.chain] = std::move(policy);
    }
    m_places.clear();
    if (!hasCompiled())
        return true;
    std::optional<KernelState> state = readKernel(reason);
    if (state)
        loadCompiled(configured, *std::move(state));
    return state.has_value();
}

void HeldRules::loadCompiled(const Applied& configured, KernelState state)
{
    m_table = rulesOf(std::move(state), configured.table);
    for (const Entry& entry : compare(configured.table, m_table)) {
        if (entry.state != EntryState::Missing)
            m_places[{entry.chain, entry.position}] = described(entry, configured);
    }
}

const HeldRule* HeldRules::decider(const Frame& frame, bool accepted) const
{
    const Walk walked = walk(m_table, frame);
    if (m_places.empty() || walked.fate != (accepted ? Fate::Accept : Fate::Drop))
        return nullptr;
    const Step& last = walked.steps.back();
    const auto found = m_places.find({last.chain->name, last.rule != nullptr ? last.position + 1 : 0});
    return found != m_places.end() ? &found->second : nullptr;
}

const HeldRule* HeldRules::rule(std::uint64_t handle) const
{
    const auto found = m_rules.find(handle);
    return found != m_rules.end() ? &found->second : nullptr;
}

const HeldRule* HeldRules::policy(const std::string& chain) const
{
    const auto found = m_policies.find(chain);
    return found != m_policies.end() ? &found->second : nullptr;
}

} // namespace moatctl
