#include "compiled/order.hpp"

#include "compiled/form.hpp"
#include "ebtables/fixed_bits.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>

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
    Orderer(std::span<const Item> items, std::span<const std::optional<RuleKey>> keys) : m_keys(keys)
    {
        rankShapes();
        for (const Item& item : items)
            m_bits.emplace_back(ebtables::Conjunction{&item.rule});
        for (std::size_t i = 0; i < items.size(); ++i)
            m_formOf.push_back(formOf(i));
        for (Form& form : m_forms)
            prepare(form);
    }

    std::vector<Group> run()
    {
        std::map<std::pair<std::size_t, std::size_t>, std::vector<std::size_t>> groups; // by level and shape
        for (std::size_t i = 0; i < m_keys.size(); ++i) {
            Form& form = m_forms[m_formOf[i]];
            if (form.shape != m_plain && isKnown(form, i))
                continue;
            const std::size_t level = levelOf(form, m_bits[i]);
            for (Projection& projection : form.projections) {
                std::size_t& highest = projection.highest[hashWhere(projection.mask, m_bits[i].value)];
                highest = std::max(highest, level + 1);
            }
            groups[{level, form.shape}].push_back(i);
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
    // The rules seen so far, by what they have where `mask` has ones; and the highest of their levels, counted from 1.
    struct Projection {
        Bits mask;
        std::unordered_map<std::uint64_t, std::size_t> highest;
    };

    // Rules of one shape that fix the same bits.
    struct Form {
        Bits mask;
        std::size_t shape;
        std::vector<Projection> projections;                     // onto the bits common with each form
        std::vector<std::pair<std::size_t, std::size_t>> seenBy; // for each form: form and projection of that one
        std::unordered_map<std::uint64_t, std::vector<std::size_t>> known; // the rules, by their values
    };

    // Shapes with more bits first; the order must not depend on the rules' own order, or one rule would move many.
    void rankShapes()
    {
        std::map<std::pair<std::size_t, std::string>, std::size_t> ranks;
        const auto place = [](const RuleKey& key) { return std::pair(~key.value.size(), shapeOf(key)); };
        for (const auto& key : m_keys) {
            if (key)
                ranks.emplace(place(*key), 0);
        }
        for (auto& [name, rank] : ranks) {
            rank = m_names.size();
            m_names.push_back(name.second);
        }
        m_plain = m_names.size();
        for (const auto& key : m_keys)
            m_shapeOf.push_back(key ? ranks.at(place(*key)) : m_plain);
    }

    std::size_t formOf(std::size_t item)
    {
        const auto find = [&] { return m_places.find({m_bits[item].mask, m_shapeOf[item]}); };
        auto place = find();
        if (place == m_places.end() && m_forms.size() >= mostForms) { // keeps its place among all others
            m_bits[item].mask = {};
            m_shapeOf[item] = m_plain;
            place = find();
        }
        if (place == m_places.end()) {
            place = m_places.emplace(std::pair(m_bits[item].mask, m_shapeOf[item]), m_forms.size()).first;
            m_forms.push_back({m_bits[item].mask, m_shapeOf[item], {}, {}, {}});
        }
        return place->second;
    }

    void prepare(Form& form)
    {
        std::map<Bits, std::size_t> places;
        for (Form& other : m_forms) {
            Bits common{};
            for (std::size_t i = 0; i < common.size(); ++i)
                common[i] = form.mask[i] & other.mask[i];
            const auto [place, isNew] = places.emplace(common, form.projections.size());
            if (isNew)
                form.projections.push_back({common, {}});
            other.seenBy.emplace_back(static_cast<std::size_t>(&form - m_forms.data()), place->second);
        }
    }

    // Whether a rule before this one takes all its frames, because it has the same key.
    bool isKnown(Form& form, std::size_t item)
    {
        std::vector<std::size_t>& same = form.known[hashWhere(form.mask, m_bits[item].value)];
        if (std::ranges::any_of(same, [&](std::size_t other) { return *m_keys[other] == *m_keys[item]; }))
            return true;
        same.push_back(item);
        return false;
    }

    std::size_t levelOf(const Form& form, const FixedBits& bits) const
    {
        std::size_t level = 0;
        for (const auto& [number, place] : form.seenBy) {
            const Form& other = m_forms[number];
            const Projection& projection = other.projections[place];
            const auto found = projection.highest.find(hashWhere(projection.mask, bits.value));
            if (found == projection.highest.end())
                continue;
            const bool fitsBehind = other.shape < form.shape || (other.shape == form.shape && form.shape == m_plain);
            level = std::max(level, found->second - (fitsBehind ? 1 : 0));
        }
        return level;
    }

    std::span<const std::optional<RuleKey>> m_keys;
    std::vector<std::string> m_names; // of the shapes
    std::size_t m_plain = 0;          // the last shape: of the rules without keys
    std::vector<std::size_t> m_shapeOf;
    std::vector<FixedBits> m_bits;
    std::vector<Form> m_forms;
    std::map<std::pair<Bits, std::size_t>, std::size_t> m_places; // in m_forms
    std::vector<std::size_t> m_formOf;
};

} // namespace

std::vector<Group> order(std::span<const Item> items, std::span<const std::optional<RuleKey>> keys)
{
    return Orderer(items, keys).run();
}

} // namespace compiled
