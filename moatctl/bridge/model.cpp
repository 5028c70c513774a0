#include "moatctl/bridge/model.hpp"

#include <algorithm>
#include <utility>

namespace moatctl
{

using ebtables::Command;
using ebtables::CommandKind;

namespace
{

std::string noChain(const std::string& name)
{
    return "there is no chain \"" + name + "\"";
}

class Walker
{
public:
    Walker(const BridgeModel& model, const Frame& frame) : m_model(model), m_frame(frame) {}

    // False when the walk is over.
    bool walkChain(const ModelChain& chain, unsigned depth)
    {
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            const ModelRule& rule = chain.rules[position];
            const MatchResult result = match(rule.rule, m_frame);
            m_walk.steps.push_back({&chain, position, &rule, depth, result});
            if (result.answer == Answer::Unknown)
                return end(Fate::Unknown);
            if (result.answer == Answer::No || rule.rule.target == "CONTINUE")
                continue;
            if (rule.rule.target == "ACCEPT")
                return end(Fate::Accept);
            if (rule.rule.target == "DROP")
                return end(Fate::Drop);
            if (rule.rule.target == "RETURN")
                return endOfChain(chain, depth, depth == 0);
            if (const ModelChain* next = m_model.find(rule.rule.target);
                next != nullptr && !walkChain(*next, depth + 1))
                return false;
        }
        return endOfChain(chain, depth, true);
    }

    Walk take() { return std::move(m_walk); }

private:
    bool end(Fate fate)
    {
        m_walk.fate = fate;
        return false;
    }

    // reached: the policy holds; a RETURN out of a user chain goes past it.
    bool endOfChain(const ModelChain& chain, unsigned depth, bool reached)
    {
        if (!reached)
            return true;
        m_walk.steps.push_back({&chain, chain.rules.size(), nullptr, depth, {}});
        if (chain.policy == "RETURN" && depth != 0)
            return true;
        return end(chain.policy == "DROP" ? Fate::Drop : Fate::Accept);
    }

    const BridgeModel& m_model;
    const Frame& m_frame;
    Walk m_walk;
};

} // namespace

BridgeModel::BridgeModel()
{
    for (const char* name : {"INPUT", "FORWARD", "OUTPUT"})
        m_chains.push_back({name, "ACCEPT", nullptr, {}});
}

const ModelChain* BridgeModel::find(std::string_view chain) const
{
    const auto found = std::ranges::find(m_chains, chain, &ModelChain::name);
    return found != m_chains.end() ? &*found : nullptr;
}

ModelChain* BridgeModel::find(std::string_view chain)
{
    return const_cast<ModelChain*>(std::as_const(*this).find(chain));
}

BridgeModel BridgeModel::restrictedTo(const std::function<bool(const ebtables::Rule&)>& keep) const
{
    BridgeModel result;
    for (std::size_t i = 0; i < result.m_chains.size(); ++i) { // grows
        const ModelChain& whole = *find(result.m_chains[i].name);
        ModelChain kept{whole.name, whole.policy, whole.policyOrigin, {}};
        for (const ModelRule& rule : whole.rules) {
            if (!keep(rule.rule))
                continue;
            kept.rules.push_back(rule);
            const std::string& target = rule.rule.target;
            if (!ebtables::isStandardTarget(target) && result.find(target) == nullptr)
                result.m_chains.push_back({target, {}, nullptr, {}});
        }
        result.m_chains[i] = std::move(kept);
    }
    return result;
}

std::optional<std::string> BridgeModel::apply(const Command& command, const Row* origin)
{
    ModelChain* chain = find(command.chain);
    if (command.kind == CommandKind::NewChain) {
        if (chain != nullptr)
            return "there is a chain \"" + command.chain + "\" already";
        m_chains.push_back({command.chain, "ACCEPT", origin, {}});
        return std::nullopt;
    }
    if (chain == nullptr)
        return noChain(command.chain);

    const auto equal = [&](const ModelRule& held) { return held.rule == command.rule; };
    switch (command.kind) {
    case CommandKind::NewChain:
        break;
    case CommandKind::Policy:
        chain->policy = command.policy;
        chain->policyOrigin = origin;
        break;
    case CommandKind::Flush:
        chain->rules.clear();
        break;
    case CommandKind::DeleteChain: {
        const auto jumpsHere = [&](const ModelChain& other) {
            return std::ranges::any_of(other.rules,
                                       [&](const ModelRule& held) { return held.rule.target == command.chain; });
        };
        if (ebtables::isBuiltIn(command.chain) || std::ranges::any_of(m_chains, jumpsHere))
            return "chain \"" + command.chain + "\" is in use";
        m_chains.erase(m_chains.begin() + (chain - m_chains.data()));
        break;
    }
    case CommandKind::Append:
    case CommandKind::Insert: {
        if (!ebtables::isStandardTarget(command.rule.target) && find(command.rule.target) == nullptr)
            return noChain(command.rule.target);
        const std::size_t place =
            command.kind == CommandKind::Append ? chain->rules.size() : std::size_t{command.position} - 1;
        if (place > chain->rules.size())
            return "chain \"" + command.chain + "\" has too few rules for position " + std::to_string(command.position);
        chain->rules.insert(chain->rules.begin() + static_cast<std::ptrdiff_t>(place), {command.rule, origin});
        break;
    }
    case CommandKind::Delete: {
        const auto found = std::ranges::find_if(chain->rules, equal);
        if (found == chain->rules.end())
            return "chain \"" + command.chain + "\" has no such rule";
        chain->rules.erase(found);
        break;
    }
    }
    return std::nullopt;
}

Walk walk(const BridgeModel& model, const Frame& frame)
{
    Walker walker(model, frame);
    walker.walkChain(*model.find(frame.out.empty() ? "INPUT" : "FORWARD"), 0);
    return walker.take();
}

} // namespace moatctl
