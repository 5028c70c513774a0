#include "compiled/order.hpp"

#include "compiled/conflicts.hpp"
#include "compiled/form.hpp"
#include "ebtables/fixed_bits.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <utility>

namespace compiled
{

namespace
{

using ebtables::FixedBits;
using ebtables::hashWhere;
using Bits = FixedBits::Bits;

constexpr std::size_t mostForms = 512;

// Ones, and then zeros, in each part: what differs only in how many can be one map, of intervals.
bool hasPrefixesOnly(const RuleKey& key)
{
    return allParts(key, [](Part, std::span<const std::uint8_t> mask) {
        const auto* const end = std::to_address(mask.end());
        const auto* const last = std::find_if(mask.data(), end, [](std::uint8_t byte) { return byte != 0xff; });
        return last == end || (std::has_single_bit(0x100U - *last) &&
                               std::all_of(last + 1, end, [](std::uint8_t byte) { return byte == 0; }));
    });
}

bool hasAddress(const RuleKey& key)
{
    return key.has(Part::Ip4Source) || key.has(Part::Ip4Destination) || key.has(Part::Ip6Source) ||
           key.has(Part::Ip6Destination);
}

// What differs in the lengths of its networks only has one shape.
std::string shapeOf(const RuleKey& key)
{
    return hasAddress(key) && hasPrefixesOnly(key) ? nameOfParts(key) : nameOfForm(key);
}

// The groups' places are found rule by rule.
class Orderer
{
public:
    Orderer(KnownRules rules, Decided decided) : m_rules(rules)
    {
        rankShapes();
        m_bits.reserve(rules.size());
        for (const Known* rule : rules) {
            const ebtables::Rule bare = ruleWithout(decided, rule->item.rule);
            m_bits.emplace_back(ebtables::Conjunction{&bare});
        }
        sortByForm();
    }

    std::vector<Group> run()
    {
        const Meetings where = meetings(m_forms, m_bits);
        // Of the rules seen so far, by place and which of the two forms they have; counted from 1.
        std::vector<std::array<std::size_t, 2>> highest(where.places.size());
        std::map<std::pair<std::size_t, std::size_t>, std::vector<std::size_t>> groups; // by level and shape
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            const std::size_t form = m_formOf[i];
            if (form == none)
                continue;
            const auto sideOf = [&](std::uint32_t place) { return where.places[place].form == form ? 0U : 1U; };
            std::size_t level = 0;
            for (const std::uint32_t place : where.of[i]) {
                const Meeting& meeting = where.places[place];
                const std::size_t other = meeting.form == form ? meeting.other : meeting.form;
                const std::size_t theirs = highest[place][other == form ? 0 : 1 - sideOf(place)];
                if (theirs != 0)
                    level = std::max(level, theirs - (fitsBehind(form, other) ? 1 : 0));
            }
            for (const std::uint32_t place : where.of[i]) {
                std::size_t& own = highest[place][sideOf(place)];
                own = std::max(own, level + 1);
            }
            groups[{level, m_shapes[form]}].push_back(i);
        }
        std::vector<Group> result;
        for (auto& [place, items] : groups) {
            const auto& [level, shape] = place;
            std::string name = shape == m_plain ? "" : m_names[shape];
            if (shape != m_plain && level != 0)
                name += "-" + std::to_string(level + 1);
            result.push_back({std::move(name), std::move(items)});
        }
        return result;
    }

private:
    static constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

    bool fitsBehind(std::size_t form, std::size_t other) const
    {
        return m_shapes[other] < m_shapes[form] || (m_shapes[other] == m_shapes[form] && m_shapes[form] == m_plain);
    }

    // Shapes with more bits first; the order must not depend on the rules' own order, or one rule would move many.
    void rankShapes()
    {
        std::unordered_map<const Form*, std::pair<std::size_t, std::string>> shapes;
        std::map<std::pair<std::size_t, std::string>, std::size_t> ranks;
        for (const Known* rule : m_rules) {
            if (!rule->key)
                continue;
            const auto [place, isNew] = shapes.try_emplace(rule->form.get());
            if (isNew) {
                place->second = {~rule->key->value.size(), shapeOf(*rule->key)};
                ranks.emplace(place->second, 0);
            }
        }
        for (auto& [name, rank] : ranks) {
            rank = m_names.size();
            m_names.push_back(name.second);
        }
        m_plain = m_names.size();
        for (const auto& [form, name] : shapes)
            m_rankOf.emplace(form, ranks.at(name));
        m_rankOf.emplace(nullptr, m_plain);
    }

    // Those that are never reached are of no form.
    void sortByForm()
    {
        std::map<std::pair<Bits, std::size_t>, std::size_t> places; // in m_forms
        std::vector<std::unordered_map<std::uint64_t, std::vector<std::size_t>>>
            known; // by form: rules by their values
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            std::size_t shape = m_rankOf.at(m_rules[i]->key ? m_rules[i]->form.get() : nullptr);
            auto place = places.find({m_bits[i].mask, shape});
            if (place == places.end()) {
                if (m_forms.size() >= mostForms) { // keeps its place among all others
                    m_bits[i].mask = {};
                    shape = m_plain;
                }
                place = places.try_emplace({m_bits[i].mask, shape}, m_forms.size()).first;
                if (place->second == m_forms.size()) {
                    m_forms.push_back({m_bits[i].mask, {}});
                    m_shapes.push_back(shape);
                    known.emplace_back();
                }
            }
            const std::size_t form = place->second;
            m_formOf.push_back(shape != m_plain && isKnown(known[form], i) ? none : form);
            if (m_formOf[i] != none)
                m_forms[form].rules.push_back(i);
        }
    }

    // Whether a rule before this one takes all its frames, because it has the same key.
    bool isKnown(std::unordered_map<std::uint64_t, std::vector<std::size_t>>& known, std::size_t rule) const
    {
        std::vector<std::size_t>& same = known[hashWhere(m_bits[rule].mask, m_bits[rule].value)];
        if (std::ranges::any_of(same, [&](std::size_t other) { return m_rules[other]->key == m_rules[rule]->key; }))
            return true;
        same.push_back(rule);
        return false;
    }

    KnownRules m_rules;
    std::vector<std::string> m_names; // of the shapes
    std::size_t m_plain = 0;          // the last shape: of the rules without keys
    std::unordered_map<const Form*, std::size_t> m_rankOf;
    std::vector<FixedBits> m_bits;
    std::vector<FixedForm> m_forms;
    std::vector<std::size_t> m_shapes; // of the forms
    std::vector<std::size_t> m_formOf; // of the rules
};

} // namespace

std::vector<Group> order(KnownRules rules, Decided decided)
{
    return Orderer(rules, decided).run();
}

} // namespace compiled
