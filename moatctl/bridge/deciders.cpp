#include "moatctl/bridge/deciders.hpp"

#include <algorithm>
#include <functional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace moatctl
{

namespace
{

constexpr std::size_t deepest = 16; // jumps: the kernel's limit

} // namespace

PreparedTable::Action PreparedTable::actionOf(const std::string& target)
{
    return target == "ACCEPT"   ? Action::Accept
           : target == "DROP"   ? Action::Drop
           : target == "RETURN" ? Action::Return
                                : Action::Continue;
}

PreparedTable::PreparedTable(const ebtables::Table& table)
{
    std::unordered_map<std::string_view, std::size_t> numbers;
    for (const ebtables::Chain& chain : table.chains)
        numbers.emplace(chain.name, numbers.size());
    std::size_t firstRule = 0;
    for (const ebtables::Chain& chain : table.chains) {
        Chain& made = m_chains.emplace_back(Chain{&chain, firstRule, actionOf(chain.policy), {}});
        made.rules.reserve(chain.rules.size());
        for (const ebtables::TableRule& rule : chain.rules) {
            if (!rule.rule) {
                made.rules.push_back({&rule, {}, Action::Unknown, 0});
                continue;
            }
            const auto next = numbers.find(rule.rule->target);
            const bool jumps = next != numbers.end() && !ebtables::isStandardTarget(rule.rule->target);
            made.rules.push_back({&rule, conditionsOf(*rule.rule), jumps ? Action::Jump : actionOf(rule.rule->target),
                                  jumps ? next->second : 0});
        }
        firstRule += chain.rules.size();
    }
}

template <typename Judge>
PreparedTable::Fits PreparedTable::fits(const Judge& judge) const
{
    Fits fits;
    for (const Chain& chain : m_chains) {
        for (const Rule& rule : chain.rules)
            fits.push_back(!rule.rule->rule || judge(*rule.rule->rule));
    }
    return fits;
}

PreparedTable::Fits PreparedTable::cameIn(const std::string& port) const
{
    return fits([&](const ebtables::Rule& rule) { return !rule.in || matchesPort(*rule.in, port); });
}

PreparedTable::Fits PreparedTable::leaves(const std::string& port) const
{
    return fits(
        [&](const ebtables::Rule& rule) { return !rule.out || (!port.empty() && matchesPort(*rule.out, port)); });
}

std::size_t PreparedTable::ruleCount() const
{
    std::size_t count = 0;
    for (const Chain& chain : m_chains)
        count += chain.rules.size();
    return count;
}

std::vector<FrameCondition> PreparedTable::conditions() const
{
    std::vector<FrameCondition> all;
    for (const Chain& chain : m_chains) {
        for (const Rule& rule : chain.rules)
            all.insert(all.end(), rule.conditions.begin(), rule.conditions.end());
    }
    return all;
}

Way::Way(const PreparedTable& table, const PreparedTable::Fits& in, const PreparedTable::Fits& out, bool forDevice)
{
    // Chains are added as rules lead to them.
    std::unordered_map<const PreparedTable::Chain*, std::size_t> numbers;
    const auto numberOf = [&](const PreparedTable::Chain& chain) {
        const auto [place, isNew] = numbers.emplace(&chain, m_chains.size());
        if (isNew)
            m_chains.push_back({&chain, {}});
        return place->second;
    };
    const char* const first = forDevice ? "INPUT" : "FORWARD";
    numberOf(*std::ranges::find(table.m_chains, first, [](const auto& chain) { return chain.chain->name; }));
    for (std::size_t i = 0; i < m_chains.size(); ++i) { // grows
        const PreparedTable::Chain& chain = *m_chains[i].prepared;
        std::vector<Rule> rules;
        for (std::size_t position = 0; position < chain.rules.size(); ++position) {
            const PreparedTable::Rule& rule = chain.rules[position];
            if (in[chain.firstRule + position] && out[chain.firstRule + position])
                rules.push_back({&rule, position,
                                 rule.action == PreparedTable::Action::Jump ? numberOf(table.m_chains[rule.next]) : 0});
        }
        m_chains[i].rules = std::move(rules);
    }
}

// Looks for frames that come to a rule. A frame is tried; where another rule decides about it, one of that rule's
// conditions must not hold, or a RETURN before it must match: each of these is tried on in turn, until a frame comes
// through or none is left. What has been tried is not tried again, so the answer is exact; it can take long when very
// many rules, each about several properties, together cover what the rule is about.
class DeciderSearch
{
public:
    using Action = PreparedTable::Action;

    DeciderSearch(const Way& way, std::span<const FrameRegion> regions, std::uint64_t effort)
        : m_way(way), m_regions(regions), m_effort(effort)
    {
        for (const Way::Chain& chain : way.m_chains)
            m_reached.emplace_back(chain.rules.size() + 1, false);
    }

    // Where a frame's way ends: the positions on it, one for each chain that it is in. Behind the last rule of a chain
    // is its policy.
    struct Place {
        std::size_t chain;
        std::size_t rule;
        bool operator==(const Place&) const = default;
    };
    using Path = std::vector<Place>;

    Way::Others decidersOtherThan(Fate fate)
    {
        Path path;
        visit(0, fate, path);
        Way::Others others;
        for (std::size_t chain = 0; chain < m_reached.size(); ++chain) {
            for (std::size_t rule = 0; rule < m_reached[chain].size(); ++rule) {
                if (!m_reached[chain][rule])
                    continue;
                if (const Decider decider = deciderAt({chain, rule}); decider.fate != fate)
                    others.deciders.push_back(decider);
            }
        }
        others.complete = m_complete;
        return others;
    }

    // Calls back with each rule that a frame comes to whatever the ports, if there is one way to it only.
    void findReached(const std::function<void(const PreparedTable::Rule&)>& onReached)
    {
        std::vector<std::size_t> ways(m_way.m_chains.size(), 0); // that lead to a chain
        ++ways[0];
        for (const Way::Chain& chain : m_way.m_chains) {
            for (const Way::Rule& rule : chain.rules)
                ways[rule.next] += rule.prepared->action == Action::Jump ? 1 : 0;
        }
        Path path;
        visitReached(0, path, ways, onReached);
    }

    // The frame's way to the end; with a target only until it cannot lead there any more.
    const Path& follow(const FramePoint& frame, const Path* target)
    {
        m_path.clear();
        m_target = target;
        walk(0, frame);
        return m_path;
    }

    Decider deciderAt(const Place& place) const
    {
        const Way::Chain& chain = m_way.m_chains[place.chain];
        if (place.rule < chain.rules.size()) {
            const Way::Rule& rule = chain.rules[place.rule];
            return {chain.prepared->chain, rule.position, rule.prepared->rule, fateOf(rule.prepared->action)};
        }
        const ebtables::Chain& whole = *chain.prepared->chain;
        // A chain that frames enter without a jump has no RETURN.
        const bool drops = chain.prepared->policy == Action::Drop;
        return {&whole, whole.rules.size(), nullptr, drops ? Fate::Drop : Fate::Accept};
    }

private:
    enum class Found { No, Yes, Unknown };

    void visitReached(std::size_t number, Path& path, const std::vector<std::size_t>& ways,
                      const std::function<void(const PreparedTable::Rule&)>& onReached)
    {
        const Way::Chain& chain = m_way.m_chains[number];
        if (ways[number] != 1 || path.size() >= deepest)
            return;
        for (std::size_t i = 0; i < chain.rules.size() && m_effort != 0; ++i) {
            path.push_back({number, i});
            const PreparedTable::Rule& rule = *chain.rules[i].prepared;
            if (rule.action == Action::Jump)
                visitReached(chain.rules[i].next, path, ways, onReached);
            else if ((rule.action == Action::Accept || rule.action == Action::Drop) && isReachedByAnyPorts(path))
                onReached(rule);
            path.pop_back();
        }
    }

    // One try. What a RETURN that is about ports does for this frame, it may not do for others.
    bool isReachedByAnyPorts(const Path& target)
    {
        return std::ranges::any_of(m_regions, [&](FrameRegion region) {
            if (!std::ranges::all_of(target, [&](const Place& place) { return narrowTo(region, place); }))
                return false;
            m_returnedByPorts = false;
            return follow(region.sample(), &target) == target && !m_returnedByPorts;
        });
    }

    static Fate fateOf(Action action)
    {
        return action == Action::Accept ? Fate::Accept : action == Action::Drop ? Fate::Drop : Fate::Unknown;
    }

    // All places at which frames may be decided about, in the order of the rules.
    void visit(std::size_t number, Fate fate, Path& path)
    {
        if (path.size() >= deepest)
            return;
        const Way::Chain& chain = m_way.m_chains[number];
        for (std::size_t i = 0; i < chain.rules.size(); ++i) {
            path.push_back({number, i});
            const Action action = chain.rules[i].prepared->action;
            if (action == Action::Jump)
                visit(chain.rules[i].next, fate, path);
            else if (action == Action::Accept || action == Action::Drop || action == Action::Unknown)
                examine(fate, path);
            path.pop_back();
        }
        if (path.empty() || chain.prepared->policy == Action::Accept || chain.prepared->policy == Action::Drop) {
            path.push_back({number, chain.rules.size()});
            examine(fate, path);
            path.pop_back();
        }
    }

    // Whether frames are decided about there.
    void examine(Fate fate, const Path& target)
    {
        const Place& end = target.back();
        const Way::Chain& chain = m_way.m_chains[end.chain];
        if (m_reached[end.chain][end.rule] || deciderAt(end).fate == fate)
            return;
        if (end.rule < chain.rules.size() && chain.rules[end.rule].prepared->reached) {
            m_reached[end.chain][end.rule] = true;
            return;
        }
        constexpr std::uint64_t leastEffort = 50;
        if (m_effort <= leastEffort) {
            m_complete = false;
            return;
        }
        m_effort -= leastEffort;
        for (const FrameRegion& region : m_regions) {
            FrameRegion left = region;
            if (!std::ranges::all_of(target, [&](const Place& place) { return narrowTo(left, place); }))
                continue;
            const Found found = search(std::move(left), target, 0);
            if (found == Found::Yes)
                return;
            m_complete = m_complete && found == Found::No;
        }
    }

    const std::vector<FrameCondition>& conditionsAt(const Place& place) const
    {
        static const std::vector<FrameCondition> none;
        const Way::Chain& chain = m_way.m_chains[place.chain];
        return place.rule < chain.rules.size() ? chain.rules[place.rule].prepared->conditions : none;
    }

    bool narrowTo(FrameRegion& region, const Place& place) const { return region.narrow(conditionsAt(place)); }

    Found search(FrameRegion region, const Path& target, std::size_t depth)
    {
        constexpr std::size_t deepestSearch = 2'000;
        bool unknown = false;
        for (;;) {
            if (m_effort == 0 || depth == deepestSearch)
                return Found::Unknown;
            const Path by = follow(region.sample(), &target);
            if (const Place& end = by.back(); !isPassingBy(by, target)) {
                m_reached[end.chain][end.rule] = true;
                if (end == target.back())
                    return Found::Yes;
            }
            // One after the other: what was tried need not be tried in what is left.
            std::vector<FrameCondition> ways;
            for (auto place = by.rbegin(); place != by.rend(); ++place) {
                const std::vector<FrameCondition>& conditions = conditionsAt(*place);
                for (auto condition = conditions.rbegin(); condition != conditions.rend(); ++condition) {
                    if (!region.implies(*condition))
                        ways.push_back(*condition);
                }
            }
            const std::vector<Place> returns = returnsBefore(by, target);
            for (std::size_t i = 0; i < ways.size(); ++i) {
                if (i + 1 == ways.size() && returns.empty()) {
                    if (!region.narrow(ways[i].negation()))
                        return unknown ? Found::Unknown : Found::No;
                    break;
                }
                FrameRegion without = region;
                if (without.narrow(ways[i].negation())) {
                    const Found found = search(std::move(without), target, depth + 1);
                    if (found == Found::Yes)
                        return found;
                    unknown = unknown || found == Found::Unknown;
                }
                region.narrow(ways[i]);
            }
            if (!ways.empty() && returns.empty())
                continue;
            for (const Place& place : returns) {
                FrameRegion returning = region;
                if (!narrowTo(returning, place))
                    continue;
                const Found found = search(std::move(returning), target, depth + 1);
                if (found == Found::Yes)
                    return found;
                unknown = unknown || found == Found::Unknown;
            }
            return unknown ? Found::Unknown : Found::No;
        }
    }

    // RETURNs that would keep a frame from coming to the end of the path, and not from coming to the target.
    std::vector<Place> returnsBefore(const Path& path, const Path& target) const
    {
        std::vector<Place> returns;
        bool common = true; // the chain is one on the way to the target, too, come to by the same jumps
        for (std::size_t i = 0; i < path.size(); ++i) {
            common = common && i < target.size() && path[i].chain == target[i].chain &&
                     (i == 0 || path[i - 1] == target[i - 1]);
            if (common && !isPolicyOfTheFirst(target))
                continue;
            const Way::Chain& chain = m_way.m_chains[path[i].chain];
            for (std::size_t rule = 0; rule < std::min(path[i].rule, chain.rules.size()); ++rule) {
                if (chain.rules[rule].prepared->action == Action::Return)
                    returns.push_back({path[i].chain, rule});
            }
        }
        return returns;
    }

    bool isPolicyOfTheFirst(const Path& path) const
    {
        return path.size() == 1 && path[0].rule == m_way.m_chains[0].rules.size();
    }

    // The path ends at a RETURN that leads past the target.
    bool isPassingBy(const Path& path, const Path& target) const
    {
        const Place& end = path.back();
        const Way::Chain& chain = m_way.m_chains[end.chain];
        return end.rule < chain.rules.size() && chain.rules[end.rule].prepared->action == Action::Return &&
               !target.empty();
    }

    // Whether a RETURN there leads past the target.
    bool leadsPast() const
    {
        if (m_target == nullptr || m_path.size() > m_target->size() || isPolicyOfTheFirst(*m_target))
            return false;
        const std::size_t last = m_path.size() - 1;
        return m_path[last].chain == (*m_target)[last].chain &&
               std::equal(m_path.begin(), m_path.end() - 1, m_target->begin());
    }

    // False when the way is over.
    bool walk(std::size_t number, const FramePoint& frame)
    {
        if (m_path.size() >= deepest)
            return true;
        const Way::Chain& chain = m_way.m_chains[number];
        const std::size_t depth = m_path.size();
        m_path.push_back({number, 0});
        for (std::size_t i = 0; i < chain.rules.size(); ++i) {
            const PreparedTable::Rule& rule = *chain.rules[i].prepared;
            if (m_effort != 0)
                --m_effort;
            if (!std::ranges::all_of(rule.conditions, [&](const FrameCondition& each) { return each.holds(frame); }))
                continue;
            m_path[depth].rule = i;
            if (rule.action == Action::Continue)
                continue;
            if (rule.action == Action::Jump) {
                if (!walk(chain.rules[i].next, frame))
                    return false;
                continue;
            }
            if (rule.action != Action::Return || leadsPast())
                return false;
            m_returnedByPorts = m_returnedByPorts || rule.rule->rule->in || rule.rule->rule->out;
            if (depth == 0)
                break; // to the policy
            m_path.pop_back();
            return true;
        }
        m_path[depth].rule = chain.rules.size();
        if (depth == 0 || chain.prepared->policy != Action::Return)
            return false;
        m_path.pop_back();
        return true;
    }

    const Way& m_way;
    std::span<const FrameRegion> m_regions;
    std::uint64_t m_effort;
    bool m_complete = true;
    bool m_returnedByPorts = false;
    std::vector<std::vector<bool>> m_reached; // by chain and rule; the last one is the policy
    Path m_path;
    const Path* m_target = nullptr;
};

void PreparedTable::findReached(const std::vector<FrameRegion>& regions, std::uint64_t effort)
{
    const Fits all(ruleCount(), true);
    std::unordered_set<const Rule*> reached;
    for (const bool forDevice : {true, false}) {
        const Way way(*this, all, all, forDevice);
        DeciderSearch(way, regions, effort).findReached([&](const Rule& rule) { reached.insert(&rule); });
    }
    for (Chain& chain : m_chains) {
        for (Rule& rule : chain.rules)
            rule.reached = reached.contains(&rule);
    }
}

Decider Way::decide(const FramePoint& frame) const
{
    DeciderSearch search(*this, {}, 0);
    return search.deciderAt(search.follow(frame, nullptr).back());
}

Way::Others Way::decidersOtherThan(Fate fate, const std::vector<FrameRegion>& regions, std::uint64_t effort) const
{
    return DeciderSearch(*this, regions, effort).decidersOtherThan(fate);
}

} // namespace moatctl
