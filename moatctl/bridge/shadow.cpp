#include "moatctl/bridge/shadow.hpp"

#include "moatctl/bridge/cover_index.hpp"

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>

namespace moatctl
{

namespace
{

using ebtables::Chain;
using ebtables::Conjunction;
using ebtables::covers;
using ebtables::disjoint;
using ebtables::Rule;
using ebtables::TableRule;

class Finder
{
public:
    explicit Finder(const ebtables::Table& table) : m_table(table) {}

    std::vector<Shadowed> find()
    {
        for (const char* chain : {"INPUT", "FORWARD"}) {
            m_invocations.clear();
            m_deciders.clear();
            m_index.clear();
            m_stack.clear();
            m_path.clear();
            walkChain(*m_table.find(chain));
        }
        std::vector<Shadowed> result;
        for (const Chain& chain : m_table.chains) {
            for (const TableRule& rule : chain.rules) {
                if (const auto found = m_found.find(&rule); found != m_found.end() && found->second)
                    result.push_back(*found->second);
            }
        }
        return result;
    }

private:
    // One way into a chain.
    struct Invocation {
        std::vector<const Rule*> returns; // rules that leave it early, so far
        bool active = true;
    };

    // Frames that match the path and come to it go no further: they are decided or (onlyReturns) leave the chain.
    struct Decider {
        Conjunction path;
        std::vector<std::pair<std::size_t, std::size_t>> stack; // invocations and how many returns stood before
        bool onlyReturns = false;
        const TableRule* rule = nullptr;
        const Chain* chain = nullptr;
    };

    void walkChain(const Chain& chain)
    {
        constexpr std::size_t deepest = 16; // the kernel's limit
        if (m_stack.size() == deepest)
            return;
        m_stack.push_back(m_invocations.size());
        m_invocations.emplace_back();
        for (const TableRule& rule : chain.rules) {
            if (!rule.rule)
                continue; // what it takes is unknown
            m_path.push_back(&*rule.rule);
            visit(chain, rule);
            m_path.pop_back();
        }
        if (m_stack.size() > 1 && chain.policy != "RETURN")
            addDecider(chain, nullptr);
        m_invocations[m_stack.back()].active = false;
        m_stack.pop_back();
    }

    void visit(const Chain& chain, const TableRule& rule)
    {
        const Decider* by = findDecider();
        auto [place, isNew] = m_found.try_emplace(&rule);
        if (by == nullptr) {
            place->second.reset();
        } else {
            if (isNew)
                place->second = Shadowed{&rule, by->rule, by->chain, by->rule != nullptr && covers(m_path, by->path)};
            return; // none of its frames comes here
        }

        const std::string& target = rule.rule->target;
        if (target == "ACCEPT" || target == "DROP" || target == "RETURN") {
            addDecider(chain, &rule);
            if (target == "RETURN")
                m_invocations[m_stack.back()].returns.push_back(&*rule.rule);
        } else if (const Chain* next = m_table.find(target); next != nullptr) {
            walkChain(*next);
        }
    }

    void addDecider(const Chain& chain, const TableRule* rule)
    {
        Decider decider;
        decider.path = m_path;
        for (const std::size_t invocation : m_stack)
            decider.stack.emplace_back(invocation, m_invocations[invocation].returns.size());
        decider.onlyReturns = rule != nullptr && rule->rule->target == "RETURN" && m_stack.size() > 1;
        decider.rule = rule;
        decider.chain = &chain;
        m_index.add(m_path, m_deciders.size());
        m_deciders.push_back(std::move(decider));
    }

    // The first one that takes all frames of the path walked now.
    const Decider* findDecider() const
    {
        std::size_t first = m_deciders.size();
        m_index.find(m_path, [&](std::span<const std::size_t> candidates) {
            for (const std::size_t candidate : candidates) {
                if (candidate >= first)
                    return;
                if (takesAll(m_deciders[candidate]))
                    first = candidate;
            }
        });
        return first < m_deciders.size() ? &m_deciders[first] : nullptr;
    }

    bool takesAll(const Decider& decider) const
    {
        if (decider.onlyReturns && !m_invocations[decider.stack.back().first].active)
            return false;
        if (!covers(decider.path, m_path))
            return false;
        // A frame may have left a chain before it came to the decider.
        return std::ranges::all_of(decider.stack, [&](const auto& entry) {
            const Invocation& invocation = m_invocations[entry.first];
            if (invocation.active)
                return true;
            return std::all_of(invocation.returns.begin(),
                               invocation.returns.begin() + static_cast<std::ptrdiff_t>(entry.second),
                               [&](const Rule* rule) { return disjoint({rule}, m_path); });
        });
    }

    const ebtables::Table& m_table;
    std::vector<Invocation> m_invocations;
    std::vector<Decider> m_deciders;
    CoverIndex m_index;               // of the deciders' paths
    std::vector<std::size_t> m_stack; // invocations on the way
    Conjunction m_path;               // the jumps on the way and the rule
    // Nothing: reached on some way.
    std::unordered_map<const TableRule*, std::optional<Shadowed>> m_found;
};

} // namespace

std::vector<Shadowed> findShadowed(const ebtables::Table& table)
{
    return Finder(table).find();
}

} // namespace moatctl
