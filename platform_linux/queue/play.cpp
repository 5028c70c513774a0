#include "platform_linux/queue/play.hpp"

#include <algorithm>
#include <set>

namespace zol::cfg
{

namespace
{

using ebtables::CommandKind;
using Refusal = std::optional<std::string>;

constexpr const char* missing = "No chain/target/match by that name.";

bool anyJumpTo(const TableImage& image, const std::string& chain)
{
    return std::ranges::any_of(image.chains, [&](const auto& entry) {
        return std::ranges::any_of(entry.second.rules, [&](const ImageRule& rule) {
            return rule.jump != nullptr && *rule.jump == chain && entry.first != chain;
        });
    });
}

// Whether jumps from the chain come back to a chain on their way; `path` has those before it.
bool leadsToLoop(const TableImage& image, const std::string& chain, std::set<std::string>& path)
{
    const ImageChain* found = image.find(chain);
    if (found == nullptr)
        return false;
    if (!path.insert(chain).second)
        return true;
    for (const ImageRule& rule : found->rules) {
        if (rule.jump != nullptr && leadsToLoop(image, *rule.jump, path))
            return true;
    }
    path.erase(chain);
    return false;
}

bool isReached(const TableImage& image, const std::string& from, const std::string& chain, std::set<std::string>& seen)
{
    if (from == chain)
        return true;
    const ImageChain* found = image.find(from);
    if (found == nullptr || !seen.insert(from).second)
        return false;
    return std::ranges::any_of(found->rules, [&](const ImageRule& rule) {
        return rule.jump != nullptr && isReached(image, *rule.jump, chain, seen);
    });
}

// The kernel minds loops only where frames can get to.
bool makesLoop(const TableImage& image, const std::string& chain, const std::string& target)
{
    std::set<std::string> path{chain};
    if (!leadsToLoop(image, target, path))
        return false;
    return std::ranges::any_of(image.chains, [&](const auto& entry) {
        std::set<std::string> seen;
        return entry.second.builtIn && isReached(image, entry.first, chain, seen);
    });
}

Refusal add(const PlayedCommand& command, TableImage& image, ImageChain& chain)
{
    if (command.jump != nullptr) {
        if (image.find(*command.jump) == nullptr)
            return "Chain '" + *command.jump + "' does not exist";
        if (makesLoop(image, *command.chain, *command.jump))
            return "Too many levels of symbolic links: the jump leads back to where it comes from";
    }
    std::size_t at = chain.rules.size();
    if (command.kind == CommandKind::Insert) {
        if (command.position > chain.rules.size() + 1)
            return "Index of insertion too big.";
        at = command.position - 1U;
    }
    chain.present = true;
    chain.rules.insert(chain.rules.begin() + static_cast<std::ptrdiff_t>(at),
                       ImageRule{command.rule, command.jump, 0, true});
    return std::nullopt;
}

Refusal remove(const PlayedCommand& command, ImageChain& chain)
{
    const auto found = std::ranges::find(chain.rules, command.rule, &ImageRule::text);
    if (found == chain.rules.end())
        return "Bad rule (does a matching rule exist in that chain?).";
    chain.rules.erase(found);
    return std::nullopt;
}

Refusal setPolicy(const PlayedCommand& command, ImageChain& chain)
{
    chain.present = true;
    chain.policy = *command.rule;
    chain.policyIsOurs = true;
    return std::nullopt;
}

} // namespace

PlayedCommand intern(const ebtables::Command& command, RulePool& pool)
{
    PlayedCommand result;
    result.kind = command.kind;
    result.position = static_cast<std::uint16_t>(command.position);
    result.chain = pool.add(command.chain);
    switch (command.kind) {
    case CommandKind::Append:
    case CommandKind::Insert:
    case CommandKind::Delete:
        result.rule = pool.add(command.rule);
        result.jump = pool.jumpOf(command.rule);
        break;
    case CommandKind::Policy:
        result.rule = pool.add(command.policy);
        break;
    default:
        break;
    }
    return result;
}

std::optional<std::string> play(const PlayedCommand& command, TableImage& image)
{
    ImageChain* chain = image.find(*command.chain);
    if (command.kind == CommandKind::NewChain) {
        if (chain != nullptr)
            return chain->ours ? "Chain already exists: it serves both who wanted one of this name"
                               : "Chain already exists.";
        ImageChain& added = image.chains[*command.chain];
        added.ours = true;
        added.policy = "ACCEPT";
        return std::nullopt;
    }
    if (chain == nullptr)
        return missing;
    switch (command.kind) {
    case CommandKind::Append:
    case CommandKind::Insert:
        return add(command, image, *chain);
    case CommandKind::Delete:
        return remove(command, *chain);
    case CommandKind::Flush:
        chain->present = true;
        chain->rules.clear();
        return std::nullopt;
    case CommandKind::Policy:
        return setPolicy(command, *chain);
    case CommandKind::DeleteChain:
        if (anyJumpTo(image, *command.chain))
            return "CHAIN_DEL failed (Device or resource busy): a rule jumps to the chain";
        image.chains.erase(image.chains.find(*command.chain));
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

} // namespace zol::cfg
