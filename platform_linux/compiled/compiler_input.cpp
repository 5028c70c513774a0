#include "platform_linux/compiled/compiler_input.hpp"

#include "compiled/mark.hpp"
#include "ebtables/line_parser.hpp"

#include <algorithm>
#include <iterator>
#include <span>
#include <vector>

namespace zol::cfg
{

namespace
{

bool isHooked(const std::string& chain)
{
    return chain == "INPUT" || chain == "FORWARD";
}

std::string obstacleIn(const TableImage& image, const std::string& name, const ImageChain& chain)
{
    for (const ImageRule& rule : chain.rules) {
        const ImageChain* const next = rule.jump != nullptr ? image.find(*rule.jump) : nullptr;
        const bool isOurs = chain.ours || rule.ours;
        if (isHooked(name) && !isOurs)
            return "rules of others are in " + name;
        if (!isHooked(name) && !chain.ours && isOurs)
            return "the chain " + name + " is not moatkeeper's";
        if (next != nullptr && next->ours != isOurs)
            return "the chain " + *rule.jump + (isOurs ? " is not moatkeeper's" : " is used by others");
    }
    return "";
}

} // namespace

std::string obstacleToCompiling(const TableImage& wanted)
{
    for (const auto& [name, chain] : wanted.chains) {
        if (isHooked(name) && !chain.builtIn)
            return "the chain " + name + " of another program is none of the bridge's";
        if (chain.builtIn && chain.present && !chain.policyIsOurs && chain.policy != "ACCEPT" && isHooked(name))
            return "another program has set the policy of " + name;
        if (std::string obstacle = obstacleIn(wanted, name, chain); !obstacle.empty())
            return obstacle;
    }
    return "";
}

bool hasOurs(const TableImage& image)
{
    return std::ranges::any_of(image.chains, [](const auto& entry) {
        const ImageChain& chain = entry.second;
        return chain.ours || std::ranges::any_of(chain.rules, &ImageRule::ours) ||
               (chain.policyIsOurs && chain.policy != "ACCEPT");
    });
}

TableImage withoutOurs(const TableImage& image, const TableImage& actual)
{
    TableImage result;
    result.table = actual.table;
    for (const auto& [name, chain] : image.chains) {
        if (chain.ours)
            continue;
        ImageChain& left = result.chains[name];
        left.builtIn = chain.builtIn;
        const ImageChain* const there = actual.find(name);
        left.present = there != nullptr && there->present; // ours needs none
        left.policy = chain.policyIsOurs ? "ACCEPT" : chain.policy;
        left.policyHandle = chain.policyHandle;
        std::ranges::copy_if(chain.rules, std::back_inserter(left.rules),
                             [](const ImageRule& rule) { return !rule.ours; });
    }
    return result;
}

bool CompilerInput::update(const TableImage& wanted, std::size_t sweeps)
{
    if (std::exchange(m_sweeps, sweeps) != sweeps)
        for (auto& [name, beside] : m_beside)
            beside.texts.clear();
    const std::size_t before = m_table.chains.size();
    std::erase_if(m_table.chains, [&](const ebtables::Chain& chain) { return wanted.find(chain.name) == nullptr; });
    std::erase_if(m_beside, [&](const auto& entry) { return wanted.find(entry.first) == nullptr; });
    bool changed = m_table.chains.size() != before;
    for (const auto& [name, chain] : wanted.chains) {
        if (name == "OUTPUT")
            continue;
        ebtables::Chain* known = m_table.find(name);
        if (known == nullptr) {
            known = &m_table.chains.emplace_back(ebtables::Chain{name, "", {}, ebtables::noOrigin});
            changed = true;
        }
        changed = updateChain(chain, *known, m_beside[name]) || changed;
    }
    return changed;
}

// Most of the time all but a few rules are as they were: equal ones at the beginning and at the end stay.
bool CompilerInput::updateChain(const ImageChain& wanted, ebtables::Chain& chain, Beside& beside)
{
    auto& rules = chain.rules;
    const auto& now = wanted.rules;
    std::vector<RulePool::Text>& texts = beside.texts;
    const std::vector<RulePool::Text> known = std::exchange(texts, {});
    texts.reserve(now.size());
    std::ranges::transform(now, std::back_inserter(texts), &ImageRule::text);
    const auto same = [&](std::size_t place, std::size_t other) {
        if (!known.empty())
            return known[place] == texts[other];
        return texts[other] != nullptr ? rules[place].text == *texts[other] : rules[place].text.empty();
    };
    std::size_t begin = 0;
    while (begin < rules.size() && begin < now.size() && same(begin, begin))
        ++begin;
    if (begin == rules.size() && begin == now.size() && chain.policy == wanted.policy)
        return false;
    std::size_t end = 0;
    while (end < rules.size() - begin && end < now.size() - begin && same(rules.size() - 1 - end, now.size() - 1 - end))
        ++end;
    std::vector<ebtables::TableRule> added;
    for (std::size_t i = begin; i < now.size() - end; ++i) {
        ebtables::TableRule& made = added.emplace_back();
        if (now[i].text == nullptr)
            continue;
        made.number = ++m_lastNumber;
        made.text = *now[i].text;
        made.rule = ebtables::parseRule(made.text, chain.name);
    }
    compiled::Marker marker(chain.name);
    const std::size_t removed = rules.size() - begin - end;
    std::vector<ebtables::Origin>& marks = beside.marks;
    const compiled::Marks allMarks(marks);
    const bool othersKeepTheirs = compiled::markAlone(
        marker, allMarks.first(begin), compiled::TableRules(rules).subspan(begin, removed), allMarks.last(end), added);
    // One that takes another's place moves no others.
    const auto replaced = static_cast<std::ptrdiff_t>(std::min(removed, added.size()));
    const auto at = [&](std::size_t place) { return rules.begin() + static_cast<std::ptrdiff_t>(place); };
    const auto place = std::move(added.begin(), added.begin() + replaced, at(begin));
    rules.insert(rules.erase(place, at(begin + removed)), std::make_move_iterator(added.begin() + replaced),
                 std::make_move_iterator(added.end()));
    if (!othersKeepTheirs) {
        for (ebtables::TableRule& rule : rules)
            rule.origin = marker.rule(rule.text);
        marks.clear();
        std::ranges::transform(rules, std::back_inserter(marks), &ebtables::TableRule::origin);
    } else {
        marks.erase(marks.begin() + static_cast<std::ptrdiff_t>(begin), marks.end() - static_cast<std::ptrdiff_t>(end));
        marks.insert(marks.begin() + static_cast<std::ptrdiff_t>(begin), now.size() - begin - end, ebtables::noOrigin);
        for (std::size_t i = begin; i < now.size() - end; ++i)
            marks[i] = rules[i].origin;
    }
    chain.policy = wanted.policy;
    chain.policyOrigin = marker.policy(chain.policy);
    return true;
}

std::optional<std::pair<std::string, std::size_t>> CompilerInput::find(ebtables::Origin mark) const
{
    for (const ebtables::Chain& chain : m_table.chains) {
        const auto found = std::ranges::find(chain.rules, mark, &ebtables::TableRule::origin);
        if (found != chain.rules.end())
            return std::pair(chain.name, static_cast<std::size_t>(found - chain.rules.begin()));
    }
    return std::nullopt;
}

} // namespace zol::cfg
