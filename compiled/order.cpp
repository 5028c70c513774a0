#include "compiled/order.hpp"

#include "compiled/conflicts.hpp"
#include "compiled/form.hpp"
#include "ebtables/fixed_bits.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace compiled
{

namespace
{

using ebtables::FixedBits;
using Bits = FixedBits::Bits;

constexpr std::size_t mostForms = 1024;

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

std::string_view textOf(const Bytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

struct HashOfKey {
    std::size_t operator()(const std::pair<const Form*, std::string_view>& key) const
    {
        return std::hash<std::string_view>()(key.second) + key.first->number;
    }
};

// The groups' places are found rule by rule.
class Orderer
{
public:
    explicit Orderer(KnownRules rules) : m_rules(rules)
    {
        rankShapes();
        sortByForm();
    }

    std::vector<Group> run()
    {
        const Meetings where = findMeetings();
        // In each meeting, of the rules of either form that were seen so far; counted from 1.
        std::vector<std::array<std::size_t, 2>> highest(where.all.size());
        std::map<std::pair<std::size_t, std::size_t>, std::vector<std::size_t>> groups; // by level and shape
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            const std::size_t form = m_formOf[i];
            if (form == none)
                continue;
            std::size_t level = 0;
            for (const std::uint32_t number : where.of[i]) {
                const Meeting& meeting = where.all[number];
                const bool isFirst = meeting.form == form;
                const std::size_t other = isFirst ? meeting.other : meeting.form;
                const std::size_t theirs = highest[number][isFirst && other != form ? 1 : 0];
                if (theirs != 0)
                    level = std::max(level, theirs - (fitsBehind(form, other) ? 1 : 0));
            }
            for (const std::uint32_t number : where.of[i]) {
                std::size_t& own = highest[number][where.all[number].form == form ? 0 : 1];
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
        std::unordered_map<const Form*, std::size_t> known;         // likewise
        std::unordered_set<std::pair<const Form*, std::string_view>, HashOfKey> keys;
        keys.reserve(m_rules.size());
        m_formOf.reserve(m_rules.size());
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            const Form* form = m_rules[i]->form.get();
            if (const auto found = known.find(form); form == nullptr || found == known.end())
                m_formOf.push_back(addForm(places, m_rules[i]->fixedBits().mask, m_rankOf.at(form)));
            else
                m_formOf.push_back(found->second);
            if (form != nullptr)
                known.emplace(form, m_formOf.back());
            // A rule before this one takes all its frames, because it has the same key.
            const bool isReached =
                m_shapes[m_formOf.back()] == m_plain || keys.emplace(form, textOf(m_rules[i]->key->value)).second;
            if (isReached)
                m_forms[m_formOf.back()].rules.push_back(i);
            else
                m_formOf.back() = none;
        }
    }

    Meetings findMeetings() const
    {
        if (m_forms.size() > 1) {
            std::vector<const FixedBits*> bits;
            bits.reserve(m_rules.size());
            for (Known* rule : m_rules)
                bits.push_back(&rule->fixedBits());
            return meetings(m_forms, bits);
        }
        Meetings nowhere; // no two are the same, or each stays behind those before it
        nowhere.of.resize(m_rules.size());
        return nowhere;
    }

    std::size_t addForm(std::map<std::pair<Bits, std::size_t>, std::size_t>& places, const Bits& mask,
                        std::size_t shape)
    {
        auto found = places.find({mask, shape});
        if (found == places.end()) {
            // Of the last ones each keeps its place among all others.
            const bool isOne = m_forms.size() < mostForms;
            found =
                places.try_emplace(isOne ? std::pair(mask, shape) : std::pair(Bits{}, m_plain), m_forms.size()).first;
            if (found->second == m_forms.size()) {
                m_forms.push_back({found->first.first, {}});
                m_shapes.push_back(found->first.second);
            }
        }
        return found->second;
    }

    KnownRules m_rules;
    std::vector<std::string> m_names; // of the shapes
    std::size_t m_plain = 0;          // the last shape: of the rules without keys
    std::unordered_map<const Form*, std::size_t> m_rankOf;
    std::vector<FixedForm> m_forms;
    std::vector<std::size_t> m_shapes; // of the forms
    std::vector<std::size_t> m_formOf; // of the rules
};

} // namespace

std::vector<Group> order(KnownRules rules)
{
    return Orderer(rules).run();
}

} // namespace compiled
