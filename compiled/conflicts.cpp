#include "compiled/conflicts.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <tuple>
#include <utility>

namespace compiled
{

namespace
{

using ebtables::FixedBits;
using ebtables::hashWhere;
using Bits = FixedBits::Bits;

constexpr std::uint32_t nowhere = std::numeric_limits<std::uint32_t>::max();

class Finder
{
public:
    Finder(std::span<const FixedForm> forms, std::span<const FixedBits* const> bits) : m_forms(forms), m_bits(bits)
    {
        m_result.of.resize(bits.size());
    }

    Meetings run()
    {
        Bits common{};
        common.fill(std::numeric_limits<Bits::value_type>::max());
        for (const FixedForm& form : m_forms)
            common = form.mask == Bits{} ? common : both(common, form.mask);
        // Only those that have the same values there can meet.
        std::vector<std::tuple<std::uint64_t, std::size_t, std::size_t>> alike; // hash, form, rule
        alike.reserve(m_bits.size());
        for (std::size_t form = 0; form < m_forms.size(); ++form) {
            if (m_forms[form].mask == Bits{}) { // these meet everybody
                for (std::size_t other = 0; other < m_forms.size(); ++other) {
                    if (other >= form || m_forms[other].mask != Bits{})
                        compare({form, m_forms[form].rules}, {other, m_forms[other].rules});
                }
                continue;
            }
            for (const std::size_t rule : m_forms[form].rules)
                alike.emplace_back(hashWhere(common, m_bits[rule]->value), form, rule);
        }
        std::ranges::sort(alike);
        std::vector<Some> some;
        for (std::size_t i = 0; i < alike.size(); ++i) {
            const auto& [hash, form, rule] = alike[i];
            if (some.empty() || some.back().form != form)
                some.push_back({form, {}});
            some.back().rules.push_back(rule);
            if (i + 1 < alike.size() && std::get<0>(alike[i + 1]) == hash)
                continue;
            for (std::size_t one = 0; one < some.size(); ++one) {
                for (std::size_t other = one; other < some.size(); ++other)
                    compare(some[one], some[other]);
            }
            some.clear();
        }
        return std::move(m_result);
    }

private:
    // Rules of a form.
    struct Some {
        std::size_t form;
        std::vector<std::size_t> rules;
    };

    // The rules of the one form with the same values.
    struct Slot {
        std::uint64_t hash = 0;
        std::uint32_t round = 0; // what is of another one is nothing
        std::uint32_t meeting = nowhere;
        std::uint32_t first = nowhere; // of the rules that meet nobody yet; the others follow in m_next
    };

    static Bits both(const Bits& one, const Bits& other)
    {
        Bits common{};
        for (std::size_t i = 0; i < common.size(); ++i)
            common[i] = one[i] & other[i];
        return common;
    }

    void compare(const Some& one, const Some& other)
    {
        const bool isOne = one.form == other.form;
        if (isOne && one.rules.size() == 1)
            return;
        const Bits common = both(m_forms[one.form].mask, m_forms[other.form].mask);
        const Meeting meeting{one.form, other.form};
        if (common == Bits{}) { // all meet
            for (const std::size_t rule : one.rules)
                m_result.of[rule].push_back(static_cast<std::uint32_t>(m_result.all.size()));
            for (const std::size_t rule : isOne ? std::span<const std::size_t>() : other.rules)
                m_result.of[rule].push_back(static_cast<std::uint32_t>(m_result.all.size()));
            m_result.all.push_back(meeting);
            return;
        }
        begin(one.rules.size());
        for (std::size_t i = 0; i < one.rules.size(); ++i) {
            Slot& slot = *slotOf(hashWhere(common, m_bits[one.rules[i]]->value), true);
            if (isOne && (slot.first != nowhere || slot.meeting != nowhere)) {
                meet(slot, one.rules, meeting);
                m_result.of[one.rules[i]].push_back(slot.meeting);
                continue;
            }
            m_next[i] = slot.first;
            slot.first = static_cast<std::uint32_t>(i);
        }
        if (isOne)
            return;
        for (const std::size_t rule : other.rules) {
            Slot* slot = slotOf(hashWhere(common, m_bits[rule]->value), false);
            if (slot == nullptr)
                continue;
            meet(*slot, one.rules, meeting);
            m_result.of[rule].push_back(slot->meeting);
        }
    }

    // All rules that wait in the slot take part.
    void meet(Slot& slot, const std::vector<std::size_t>& rules, Meeting meeting)
    {
        if (slot.meeting == nowhere) {
            slot.meeting = static_cast<std::uint32_t>(m_result.all.size());
            m_result.all.push_back(meeting);
        }
        for (; slot.first != nowhere; slot.first = m_next[slot.first])
            m_result.of[rules[slot.first]].push_back(slot.meeting);
    }

    // An empty table for so many rules.
    void begin(std::size_t rules)
    {
        const std::size_t size = std::bit_ceil(2 * rules + 1);
        if (m_slots.size() < size)
            m_slots.assign(size, {});
        m_last = size - 1;
        m_next.resize(std::max(m_next.size(), rules));
        ++m_round;
    }

    // Null when there is none and none is to be made.
    Slot* slotOf(std::uint64_t hash, bool make)
    {
        auto at = static_cast<std::size_t>(hash) & m_last;
        while (m_slots[at].round == m_round && m_slots[at].hash != hash)
            at = (at + 1) & m_last;
        if (m_slots[at].round != m_round) {
            if (!make)
                return nullptr;
            m_slots[at] = {hash, m_round, nowhere, nowhere};
        }
        return &m_slots[at];
    }

    std::span<const FixedForm> m_forms;
    std::span<const FixedBits* const> m_bits;
    std::vector<Slot> m_slots;
    std::size_t m_last = 0; // of the slots in use
    std::uint32_t m_round = 0;
    std::vector<std::uint32_t> m_next;
    Meetings m_result;
};

} // namespace

Meetings meetings(std::span<const FixedForm> forms, std::span<const FixedBits* const> bits)
{
    return Finder(forms, bits).run();
}

} // namespace compiled
