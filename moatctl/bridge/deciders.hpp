// Which rules decide about the frames of one way through the bridge: exactly, over all frames of a question.
#pragma once

#include "ebtables/table.hpp"
#include "moatctl/bridge/frame_region.hpp"
#include "moatctl/bridge/walk.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace moatctl
{

// A rule that decides, or the policy of a chain. The addresses are the table's.
struct Decider {
    const ebtables::Chain* chain = nullptr;
    std::size_t position = 0;                  // of the rule in its chain, from 0
    const ebtables::TableRule* rule = nullptr; // null: the policy
    Fate fate = Fate::Accept;                  // Unknown: a rule with parts that are unknown here

    ebtables::Origin origin() const { return rule != nullptr ? rule->origin : chain->policyOrigin; }
};

// A table, made ready for many questions. The table must outlive this.
class PreparedTable
{
public:
    explicit PreparedTable(const ebtables::Table& table);

    // By the number of a rule, counted through all chains: whether it may match frames that come in by this port, or
    // that leave by it. An empty name: frames for the device itself.
    using Fits = std::vector<bool>;
    Fits cameIn(const std::string& port) const;
    Fits leaves(const std::string& port) const;

    std::size_t ruleCount() const;
    // All that rules look at, but for the ports of the bridge.
    std::vector<FrameCondition> conditions() const;

    // Finds the rules that some frame of the regions comes to by whatever ports they may be about. Other questions
    // about ways with many rules in common are quicker afterwards.
    void findReached(const std::vector<FrameRegion>& regions, std::uint64_t effort);

private:
    friend class Way;
    friend class DeciderSearch;

    enum class Action : std::uint8_t { Accept, Drop, Return, Continue, Jump, Unknown };
    struct Rule {
        const ebtables::TableRule* rule;
        std::vector<FrameCondition> conditions;
        Action action;
        std::size_t next;     // Jump: the chain
        bool reached = false; // by findReached
    };
    struct Chain {
        const ebtables::Chain* chain;
        std::size_t firstRule; // its number
        Action policy;
        std::vector<Rule> rules;
    };
    template <typename Judge>
    Fits fits(const Judge& judge) const;
    static Action actionOf(const std::string& target);

    std::vector<Chain> m_chains;
};

// The rules that frames meet which come in by one port and leave by another, or are for the device itself.
class Way
{
public:
    // The table must outlive this.
    Way(const PreparedTable& table, const PreparedTable::Fits& in, const PreparedTable::Fits& out, bool forDevice);

    Decider decide(const FramePoint& frame) const;

    struct Others {
        std::vector<Decider> deciders;
        bool complete = true; // false: there may be more; to find out would take too long
    };
    // All that decide about some frame of the regions, and otherwise than `fate`, in the order of the chains. effort:
    // how often a frame may be held against a rule.
    Others decidersOtherThan(Fate fate, const std::vector<FrameRegion>& regions, std::uint64_t effort) const;

private:
    friend class DeciderSearch;

    struct Rule {
        const PreparedTable::Rule* prepared;
        std::size_t position; // in the table's chain
        std::size_t next;     // Jump: the chain
    };
    struct Chain {
        const PreparedTable::Chain* prepared;
        std::vector<Rule> rules;
    };

    std::vector<Chain> m_chains; // the first one is where frames begin
};

} // namespace moatctl
