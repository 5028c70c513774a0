#include "moatctl/bridge/walk.hpp"

#include <utility>

namespace moatctl
{

namespace
{

class Walker
{
public:
    Walker(const ebtables::Table& table, const Frame& frame) : m_table(table), m_frame(frame) {}

    // False when the walk is over.
    bool walkChain(const ebtables::Chain& chain, unsigned depth)
    {
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            const ebtables::TableRule& rule = chain.rules[position];
            const MatchResult result = rule.rule
                                           ? match(*rule.rule, m_frame)
                                           : MatchResult{Answer::Unknown, "an option", "a part that is unknown here"};
            m_walk.steps.push_back({&chain, position, &rule, depth, result});
            if (result.answer == Answer::Unknown)
                return end(Fate::Unknown);
            if (result.answer == Answer::No || rule.rule->target == "CONTINUE")
                continue;
            if (rule.rule->target == "ACCEPT")
                return end(Fate::Accept);
            if (rule.rule->target == "DROP")
                return end(Fate::Drop);
            if (rule.rule->target == "RETURN")
                return endOfChain(chain, depth, depth == 0);
            if (const ebtables::Chain* next = m_table.find(rule.rule->target);
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
    bool endOfChain(const ebtables::Chain& chain, unsigned depth, bool reached)
    {
        if (!reached)
            return true;
        m_walk.steps.push_back({&chain, chain.rules.size(), nullptr, depth, {}});
        if (chain.policy == "RETURN" && depth != 0)
            return true;
        return end(chain.policy == "DROP" ? Fate::Drop : Fate::Accept);
    }

    const ebtables::Table& m_table;
    const Frame& m_frame;
    Walk m_walk;
};

} // namespace

Walk walk(const ebtables::Table& table, const Frame& frame)
{
    Walker walker(table, frame);
    walker.walkChain(*table.find(frame.out.empty() ? "INPUT" : "FORWARD"), 0);
    return walker.take();
}

} // namespace moatctl
