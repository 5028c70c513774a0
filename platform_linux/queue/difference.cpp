#include "platform_linux/queue/difference.hpp"

#include <algorithm>
#include <set>
#include <span>
#include <unordered_map>

namespace zol::cfg
{

namespace
{

using Kind = Change::Kind;

// So many rules more at the end of a chain are worth a new policy rule behind them: the kernel finds a place in the
// middle by going through the chain from its beginning.
constexpr std::size_t fewRules = 16;

// The kernel takes such a step for each rule in front of one that is named by its handle. So many are too long ...
constexpr std::size_t longWay = 1'000'000;
// ... when only one of so many rules stays: then the chain is emptied and filled anew.
constexpr std::size_t fewStay = 8;

// Of wanted[i], which of actual stays for it: indices into actual, or npos. In order, as many as possible.
constexpr std::size_t npos = static_cast<std::size_t>(-1);

void matchByValue(std::span<const ImageRule> actual, std::span<const ImageRule> wanted, std::size_t actualAt,
                  std::span<std::size_t> matches)
{
    const auto same = [](const ImageRule& a, const ImageRule& b) {
        return a.text != nullptr ? a.text == b.text : b.text == nullptr && a.handle == b.handle;
    };
    std::size_t begin = 0;
    while (begin < actual.size() && begin < wanted.size() && same(actual[begin], wanted[begin])) {
        matches[begin] = actualAt + begin;
        ++begin;
    }
    std::size_t end = 0;
    while (end < actual.size() - begin && end < wanted.size() - begin &&
           same(actual[actual.size() - 1 - end], wanted[wanted.size() - 1 - end])) {
        matches[wanted.size() - 1 - end] = actualAt + actual.size() - 1 - end;
        ++end;
    }
    // Between the two: the longest run of pairs that keeps the order, equal rules paired first with first.
    std::unordered_map<RulePool::Text, std::vector<std::size_t>> places;
    for (std::size_t i = actual.size() - end; i-- > begin;) {
        if (actual[i].text != nullptr)
            places[actual[i].text].push_back(i); // the last one first
    }
    struct Pair {
        std::size_t wanted;
        std::size_t actual;
        std::size_t before; // the pair in front of it in the longest run that ends here
    };
    std::vector<Pair> pairs;
    std::vector<std::size_t> ends; // for each length of run, the pair with the smallest place that ends one
    for (std::size_t i = begin; i + end < wanted.size(); ++i) {
        const auto found = wanted[i].text != nullptr ? places.find(wanted[i].text) : places.end();
        if (found == places.end() || found->second.empty())
            continue;
        const std::size_t place = found->second.back();
        found->second.pop_back();
        const auto longer = std::ranges::lower_bound(ends, place, {}, [&](std::size_t p) { return pairs[p].actual; });
        pairs.push_back({i, place, longer == ends.begin() ? npos : *(longer - 1)});
        if (longer == ends.end())
            ends.push_back(pairs.size() - 1);
        else
            *longer = pairs.size() - 1;
    }
    for (std::size_t p = ends.empty() ? npos : ends.back(); p != npos; p = pairs[p].before)
        matches[pairs[p].wanted] = actualAt + pairs[p].actual;
}

// Rules of others are fixed points; between two of them ours are matched by what they say.
std::vector<std::size_t> match(const ImageChain& actual, const ImageChain& wanted)
{
    std::vector<std::size_t> matches(wanted.rules.size(), npos);
    std::size_t wantedAt = 0;
    std::size_t actualAt = 0;
    const auto section = [&](std::size_t wantedEnd, std::size_t actualEnd) {
        matchByValue(std::span(actual.rules).subspan(actualAt, actualEnd - actualAt),
                     std::span(wanted.rules).subspan(wantedAt, wantedEnd - wantedAt), actualAt,
                     std::span(matches).subspan(wantedAt, wantedEnd - wantedAt));
    };
    if (!wanted.ours) {
        std::unordered_map<std::uint64_t, std::size_t> places;
        for (std::size_t i = 0; i < actual.rules.size(); ++i)
            places.emplace(actual.rules[i].handle, i);
        for (std::size_t i = 0; i < wanted.rules.size(); ++i) {
            if (wanted.rules[i].ours)
                continue;
            const auto found = places.find(wanted.rules[i].handle);
            if (found == places.end() || found->second < actualAt)
                continue;
            section(i, found->second);
            matches[i] = found->second;
            wantedAt = i + 1;
            actualAt = found->second + 1;
        }
    }
    section(wanted.rules.size(), actual.rules.size());
    return matches;
}

class Difference
{
public:
    Difference(const TableImage& actual, TableImage& wanted) : m_actual(actual), m_wanted(wanted) {}

    std::vector<Change> find()
    {
        for (auto& [name, wanted] : m_wanted.chains)
            compareChain(name, m_actual.find(name), wanted);
        for (const auto& [name, actual] : m_actual.chains) {
            if (m_wanted.find(name) != nullptr || !actual.present)
                continue;
            m_deletions.push_back({Kind::DeleteRules, name, 0, 0, {}});
            m_last.push_back({Kind::DeleteChain, name, 0, 0, {}});
        }
        for (auto* part : {&m_deletions, &m_chains, &m_additions, &m_last})
            std::ranges::move(*part, std::back_inserter(m_first));
        return std::move(m_first);
    }

private:
    void compareChain(const std::string& name, const ImageChain* actual, ImageChain& wanted)
    {
        static const ImageChain none;
        const bool exists = actual != nullptr && actual->present && m_actual.table != 0;
        if (wanted.builtIn && wanted.present) {
            if (!exists)
                m_first.push_back({Kind::AddBuiltIn, name, 0, 0, {}});
            else if (actual->policy != wanted.policy)
                m_first.push_back({Kind::SetPolicy, name, 0, 0, {}});
        } else if (!exists && !wanted.builtIn) {
            m_chains.push_back({Kind::AddChain, name, 0, 0, {}});
        }
        compareRules(name, exists ? *actual : none, wanted);
    }

    void compareRules(const std::string& name, const ImageChain& actual, ImageChain& wanted)
    {
        const std::vector<std::size_t> matches = match(actual, wanted);
        if (wanted.ours && isLongWay(actual, matches))
            return refill(name, actual, wanted, matches);
        const bool anyStays = std::ranges::any_of(matches, [](std::size_t m) { return m != npos; });
        bool policyStays = actual.policyHandle != 0 && actual.policy == wanted.policy;
        std::size_t tail = 0;
        while (tail < matches.size() && matches[matches.size() - 1 - tail] == npos)
            ++tail;
        policyStays = policyStays && tail <= fewRules;

        if (!anyStays && !policyStays) {
            if (!actual.rules.empty() || actual.policyHandle != 0)
                m_deletions.push_back({Kind::DeleteRules, name, 0, 0, {}});
        } else {
            const std::vector<bool> stays = staying(actual, matches);
            for (std::size_t i = 0; i < stays.size(); ++i) {
                if (!stays[i])
                    m_deletions.push_back({Kind::DeleteRule, name, actual.rules[i].handle, 0, {}});
            }
            if (actual.policyHandle != 0 && !policyStays)
                m_deletions.push_back({Kind::DeleteRule, name, actual.policyHandle, 0, {}});
        }

        wanted.policyHandle = policyStays ? actual.policyHandle : 0;
        for (std::size_t i = 0; i < matches.size(); ++i)
            wanted.rules[i].handle = matches[i] == npos ? 0 : actual.rules[matches[i]].handle;
        for (std::size_t begin = 0; begin < matches.size();) {
            std::size_t end = begin;
            while (end < matches.size() && matches[end] == npos)
                ++end;
            addRun(name, wanted, begin, end);
            begin = end + 1;
        }
        if (!policyStays)
            addPolicy(name, wanted);
    }

    static std::vector<bool> staying(const ImageChain& actual, const std::vector<std::size_t>& matches)
    {
        std::vector<bool> stays(actual.rules.size(), false);
        for (const std::size_t m : matches) {
            if (m != npos)
                stays[m] = true;
        }
        return stays;
    }

    // Whether so many rules go that the kernel would look for each of them for a long time.
    static bool isLongWay(const ImageChain& actual, const std::vector<std::size_t>& matches)
    {
        const std::vector<bool> stays = staying(actual, matches);
        const auto staying = static_cast<std::size_t>(std::ranges::count(stays, true));
        if (staying == 0 || fewStay * staying > stays.size())
            return false;
        std::size_t steps = 0;
        for (std::size_t i = 0; i < stays.size(); ++i)
            steps += stays[i] ? 0 : i;
        return steps > longWay;
    }

    void refill(const std::string& name, const ImageChain& actual, ImageChain& wanted,
                const std::vector<std::size_t>& matches)
    {
        m_deletions.push_back({Kind::DeleteRules, name, 0, 0, {}});
        wanted.policyHandle = 0;
        for (std::size_t i = 0; i < matches.size(); ++i) {
            wanted.rules[i].handle = 0;
            m_additions.push_back(
                {Kind::AddRule, name, matches[i] == npos ? 0 : actual.rules[matches[i]].handle, i, {}});
        }
        addPolicy(name, wanted);
    }

    void addPolicy(const std::string& name, const ImageChain& wanted)
    {
        if (!wanted.builtIn && wanted.policy != "RETURN")
            m_additions.push_back({Kind::AddChainPolicy, name, 0, 0, {}});
    }

    // New rules between two that stay. The kernel looks for a rule from the chain's beginning: behind the one in front
    // it finds their place sooner than before the next one, so the last of them goes there first.
    void addRun(const std::string& name, const ImageChain& wanted, std::size_t begin, std::size_t end)
    {
        using Where = nftables::Place::Where;
        if (end == wanted.rules.size() && wanted.policyHandle == 0) {
            for (std::size_t i = begin; i < end; ++i)
                m_additions.push_back({Kind::AddRule, name, 0, i, {}});
            return;
        }
        const nftables::Place place = begin == 0 ? nftables::Place{Where::InFront, 0}
                                                 : nftables::Place{Where::Behind, wanted.rules[begin - 1].handle};
        for (std::size_t i = end; i-- > begin;)
            m_additions.push_back({Kind::AddRule, name, 0, i, place});
    }

    const TableImage& m_actual;
    TableImage& m_wanted;
    std::vector<Change> m_first;
    std::vector<Change> m_deletions;
    std::vector<Change> m_chains;
    std::vector<Change> m_additions;
    std::vector<Change> m_last;
};

// One chain that is not ours: which of its rules are, and where those go that are not there.
class ChainFit
{
public:
    ChainFit(const std::string& name, ImageChain& wanted, const ImageChain* known, ImageChain& actual,
             const ebtables::Footprint& leftover)
        : m_wanted(wanted), m_actual(actual)
    {
        std::set<std::uint64_t> ours;
        if (known != nullptr) {
            for (const ImageRule& rule : known->rules) {
                if (rule.ours)
                    ours.insert(rule.handle);
            }
        }
        std::unordered_map<RulePool::Text, unsigned> taken;
        for (ImageRule& rule : actual.rules) {
            rule.ours = ours.contains(rule.handle);
            if (!rule.ours && rule.text != nullptr && taken[rule.text] < leftover.rules(name, *rule.text)) {
                ++taken[rule.text];
                rule.ours = true;
            }
        }
        adoptLost();
    }

    void fit()
    {
        // For each rule of ours, behind how many of theirs it goes: where it is, or as it was among those still there.
        std::unordered_map<std::uint64_t, std::size_t> theirs;
        std::vector<std::pair<RulePool::Text, std::size_t>> present;
        for (const ImageRule& rule : m_actual.rules) {
            if (rule.ours)
                present.emplace_back(rule.text, theirs.size());
            else
                theirs.emplace(rule.handle, theirs.size() + 1);
        }
        std::vector<ImageRule> result;
        for (const ImageRule& rule : m_actual.rules) {
            if (!rule.ours)
                result.push_back(rule);
        }
        const std::vector<ImageRule> others = result;
        result.clear();
        std::size_t passed = 0;
        std::size_t behind = 0;
        for (ImageRule rule : m_wanted.rules) {
            if (!rule.ours) {
                if (const auto found = theirs.find(rule.handle); found != theirs.end())
                    behind = std::max(behind, found->second);
                continue;
            }
            const auto found = std::ranges::find(present, rule.text, &std::pair<RulePool::Text, std::size_t>::first);
            if (found != present.end()) {
                behind = std::max(behind, found->second);
                found->first = nullptr;
            }
            for (; passed < behind; ++passed)
                result.push_back(others[passed]);
            rule.handle = 0;
            result.push_back(rule);
        }
        for (; passed < others.size(); ++passed)
            result.push_back(others[passed]);
        m_wanted.rules = std::move(result);
    }

private:
    // A rule of ours that somebody has taken out and put in again is still ours.
    void adoptLost()
    {
        std::unordered_map<RulePool::Text, int> missing;
        for (const ImageRule& rule : m_wanted.rules) {
            if (rule.ours)
                ++missing[rule.text];
        }
        for (const ImageRule& rule : m_actual.rules) {
            if (rule.ours)
                --missing[rule.text];
        }
        std::set<std::uint64_t> known;
        for (const ImageRule& rule : m_wanted.rules) {
            if (!rule.ours)
                known.insert(rule.handle);
        }
        for (ImageRule& rule : m_actual.rules) {
            if (rule.ours || rule.text == nullptr || known.contains(rule.handle))
                continue;
            if (const auto found = missing.find(rule.text); found != missing.end() && found->second > 0) {
                --found->second;
                rule.ours = true;
            }
        }
    }

    ImageChain& m_wanted;
    ImageChain& m_actual;
};

} // namespace

std::vector<Change> difference(const TableImage& actual, TableImage& wanted)
{
    return Difference(actual, wanted).find();
}

void fit(TableImage& wanted, const TableImage* known, TableImage& actual, const ebtables::Footprint& leftover)
{
    for (auto& [name, found] : actual.chains) {
        const ImageChain* before = known != nullptr ? known->find(name) : nullptr;
        found.ours = !found.builtIn && ((before != nullptr && before->ours) || leftover.hasChain(name));
        ImageChain* chain = wanted.find(name);
        if (chain == nullptr) {
            if (!found.ours)
                chain = &(wanted.chains[name] = found); // theirs, new
            else
                continue; // to be deleted
        }
        if (chain->ours && !found.ours) {
            // We wanted one of this name before we knew that there is one: the tool refuses, and rules go into theirs.
            chain->ours = false;
            chain->policyIsOurs = false;
        }
        if (chain->ours)
            continue;
        ChainFit(name, *chain, before, found, leftover).fit();
        chain->builtIn = found.builtIn;
        chain->present = chain->present || found.present;
        if (!chain->policyIsOurs)
            chain->policy = found.policy;
        if (found.builtIn && !chain->policyIsOurs && leftover.hasPolicy(name))
            chain->policy = "ACCEPT";
    }
    std::erase_if(wanted.chains, [&](const auto& entry) {
        const ImageChain* found = actual.find(entry.first);
        return !entry.second.ours && !entry.second.builtIn && found == nullptr;
    });
}

} // namespace zol::cfg
