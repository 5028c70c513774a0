#include "compiled/known.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace compiled
{

void Known::findKey(Decided decided, Forms& forms)
{
    if (keyFor == decided)
        return;
    key = keyOf(item.rule, decided);
    form = key ? forms.of(*key) : nullptr;
    keyFor = decided;
    bits.reset();
}

const ebtables::FixedBits& Known::fixedBits()
{
    if (!bits) {
        const ebtables::Rule bare = ruleWithout(keyFor.value_or(Decided()), item.rule);
        bits = std::make_unique<ebtables::FixedBits>(ebtables::Conjunction{&bare});
    }
    return *bits;
}

Serials serialsOf(KnownRules rules)
{
    Serials serials;
    serials.reserve(rules.size());
    for (const Known* rule : rules)
        serials.push_back(rule->serial);
    return serials;
}

bool hasSerials(KnownRules rules, const Serials& serials)
{
    return std::ranges::equal(rules, serials, {}, &Known::serial);
}

bool KnownList::isSame(std::size_t place, const FlatRule& rule) const
{
    const RuleTag& tag = m_tags[place];
    return tag.origin == rule.tag.origin &&
           ((rule.tag.number != 0 && tag.number == rule.tag.number) || m_rules[place]->item.rule == *rule.rule);
}

// Looks at a few only: a caller may give the same mark to all.
std::unique_ptr<Known> KnownList::takeSame(const Others& others, const FlatRule& rule)
{
    constexpr int most = 8;
    auto other = std::ranges::lower_bound(others, std::pair(rule.tag.origin, std::size_t{0}));
    for (int tried = 0; other != others.end() && other->first == rule.tag.origin && tried < most; ++other, ++tried) {
        std::unique_ptr<Known>& known = m_rules[other->second];
        if (known && isSame(other->second, rule))
            return std::move(known);
    }
    return nullptr;
}

bool KnownList::update(const FlatRules& now, std::uint64_t& lastSerial)
{
    const std::vector<FlatRule>& rules = now.rules;
    const std::size_t shorter = std::min(m_rules.size(), rules.size());
    std::size_t begin = 0;
    while (begin < shorter && isSame(begin, rules[begin]))
        ++begin;
    std::size_t end = 0;
    while (end < shorter - begin && isSame(m_rules.size() - 1 - end, rules[rules.size() - 1 - end]))
        ++end;

    bool samePorts = m_rules.size() == rules.size();
    for (std::size_t i = begin; samePorts && i < rules.size() - end; ++i) {
        const ebtables::Rule& before = m_rules[i]->item.rule;
        samePorts = before.in == rules[i].rule->in && before.out == rules[i].rule->out;
    }

    // Between the first and the last change there may be many that only have other neighbours.
    Others others;
    others.reserve(m_rules.size() - begin - end);
    for (std::size_t i = begin; i < m_rules.size() - end; ++i)
        others.emplace_back(m_tags[i].origin, i);
    std::ranges::sort(others);
    std::vector<std::unique_ptr<Known>> between;
    between.reserve(rules.size() - begin - end);
    for (std::size_t i = begin; i < rules.size() - end; ++i) {
        if (std::unique_ptr<Known> same = takeSame(others, rules[i])) {
            between.push_back(std::move(same));
            continue;
        }
        auto made = std::make_unique<Known>();
        made->item = {rules[i].tag.origin, *rules[i].rule};
        made->returns = rules[i].rule->target == "RETURN";
        made->serial = ++lastSerial;
        between.push_back(std::move(made));
    }
    const auto from = static_cast<std::ptrdiff_t>(begin);
    const auto to = static_cast<std::ptrdiff_t>(m_rules.size() - end);
    m_serials.erase(m_serials.begin() + from, m_serials.begin() + to);
    m_serials.insert(m_serials.begin() + from, between.size(), 0);
    std::ranges::transform(between, m_serials.begin() + from, [](const auto& known) { return known->serial; });
    m_rules.erase(m_rules.begin() + from, m_rules.begin() + to);
    m_rules.insert(m_rules.begin() + from, std::make_move_iterator(between.begin()),
                   std::make_move_iterator(between.end()));
    m_tags.clear();
    std::ranges::transform(rules, std::back_inserter(m_tags), &FlatRule::tag);
    return !samePorts;
}

} // namespace compiled
