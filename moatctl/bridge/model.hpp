// The kernel's bridge table as it would be after a list of commands, and the way of a frame through it.
#pragma once

#include "ebtables/command.hpp"
#include "moatctl/bridge/frame.hpp"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

struct Row;

struct ModelRule {
    ebtables::Rule rule;
    const Row* origin = nullptr; // the configuration row that it is made of; null for the daemon's own jumps
};

struct ModelChain {
    std::string name;
    std::string policy; // ACCEPT, DROP or RETURN
    const Row* policyOrigin = nullptr;
    std::vector<ModelRule> rules;
};

// A plain value. Begins as the kernel does: INPUT, FORWARD and OUTPUT, empty, policy ACCEPT.
class BridgeModel
{
public:
    BridgeModel();

    // Carries the command out, or says why the kernel would refuse it and changes nothing.
    std::optional<std::string> apply(const ebtables::Command& command, const Row* origin);

    // In the order of their creation, the built-in ones first.
    const std::vector<ModelChain>& chains() const { return m_chains; }
    const ModelChain* find(std::string_view chain) const;

    // With the rules that `keep` wants, and without the chains that no rule leads to any more.
    BridgeModel restrictedTo(const std::function<bool(const ebtables::Rule&)>& keep) const;

private:
    ModelChain* find(std::string_view chain);

    std::vector<ModelChain> m_chains;
};

// One thing that a frame meets. The addresses are the model's.
struct Step {
    const ModelChain* chain = nullptr;
    std::size_t position = 0;        // of the rule in its chain, from 0
    const ModelRule* rule = nullptr; // null: the end of the chain, where its policy holds
    unsigned depth = 0;              // how many jumps deep
    MatchResult result;              // of the rule; Yes for a policy
};

enum class Fate { Accept, Drop, Unknown };

struct Walk {
    Fate fate = Fate::Accept;
    std::vector<Step> steps; // the last one decides; when the fate is unknown, it is the one that cannot be decided
};

// The frame's way: from FORWARD when it has a port to leave by, else from INPUT.
Walk walk(const BridgeModel& model, const Frame& frame);

} // namespace moatctl
