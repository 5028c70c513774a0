#include "compiled/conflicts.hpp"

#include <algorithm>
#include <bit>
#include <limits>

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
    Finder(std::span<const FixedForm> forms, std::span<const FixedBits> bits) : m_forms(forms), m_bits(bits)
    {
        m_result.of.resize(bits.size());
    }

    Meetings run()
    {
        for (std::size_t i = 0; i < m_forms.size(); ++i) {
            for (std::size_t j = i; j < m_forms.size(); ++j)
                compare(i, j);
        }
        return std::move(m_result);
    }

private:
    // The rules of one of the two forms with the same values.
    struct Slot {
        std::uint64_t hash = 0;
        std::uint32_t round = 0; // what is of another one is nothing
        std::uint32_t place = nowhere;
        std::uint32_t first = nowhere; // of the rules; the others follow in m_next
    };

    void compare(std::size_t one, std::size_t other)
    {
        Bits common{};
        for (std::size_t i = 0; i < common.size(); ++i)
            common[i] = m_forms[one].mask[i] & m_forms[other].mask[i];
        const auto& rules = m_forms[one].rules;
        begin(rules.size());
        for (std::size_t i = 0; i < rules.size(); ++i) {
            Slot& slot = *slotOf(hashWhere(common, m_bits[rules[i]].value), true);
            if (one == other && (slot.first != nowhere || slot.place != nowhere)) {
                meet(slot, rules, {one, other});
                m_result.of[rules[i]].push_back(slot.place);
                continue;
            }
            m_next[i] = slot.first;
            slot.first = static_cast<std::uint32_t>(i);
        }
        if (one == other)
            return;
        for (const std::size_t rule : m_forms[other].rules) {
            Slot* slot = slotOf(hashWhere(common, m_bits[rule].value), false);
            if (slot == nullptr)
                continue;
            meet(*slot, rules, {one, other});
            m_result.of[rule].push_back(slot->place);
        }
    }

    // All rules that wait in the slot have this place in common.
    void meet(Slot& slot, const std::vector<std::size_t>& rules, Meeting meeting)
    {
        if (slot.place == nowhere) {
            slot.place = static_cast<std::uint32_t>(m_result.places.size());
            m_result.places.push_back(meeting);
        }
        for (; slot.first != nowhere; slot.first = m_next[slot.first])
            m_result.of[rules[slot.first]].push_back(slot.place);
    }

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
        std::size_t at = hash & m_last;
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
    std::span<const FixedBits> m_bits;
    std::vector<Slot> m_slots;
    std::size_t m_last = 0; // of the slots in use
    std::uint32_t m_round = 0;
    std::vector<std::uint32_t> m_next;
    Meetings m_result;
};

} // namespace

Meetings meetings(std::span<const FixedForm> forms, std::span<const FixedBits> bits)
{
    return Finder(forms, bits).run();
}

} // namespace compiled
