// Rules of a chain with what was found out about them, from one compilation to the next.
#pragma once

#include "compiled/flatten.hpp"
#include "compiled/form.hpp"
#include "compiled/item.hpp"
#include "compiled/key.hpp"
#include "ebtables/fixed_bits.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace compiled
{

struct Known {
    std::uint64_t serial = 0; // of this rule at this time: who has the same serials as before has the same rules
    std::shared_ptr<const Form> form; // of the key
    std::optional<Decided> keyFor;    // what was decided when the key was made
    std::optional<RuleKey> key;
    std::unique_ptr<const ebtables::FixedBits> bits; // likewise; only where they were asked for
    Item item;

    // Makes sure of key and form. In classes of other kinds it may have another key.
    void findKey(Decided decided, Forms& forms);
    // What the rule fixes, without what was decided.
    const ebtables::FixedBits& fixedBits();
};

using KnownRules = std::span<Known* const>;
using Serials = std::vector<std::uint64_t>;
Serials serialsOf(KnownRules rules);
bool hasSerials(KnownRules rules, const Serials& serials);

// A chain's rules in their order.
class KnownList
{
public:
    // Takes over the rules as they are now. Those that were there before stay the same, if they do not change their
    // order; most of the time that are all but a few, and nothing is done for them but to compare them.
    //
    //   before: A(1) B(2) C(3)    now: A D C    ->    A(1) D(4) C(3)
    //
    // lastSerial: that was given. False when each place names the ports that it named before.
    bool update(const FlatRules& now, std::uint64_t& lastSerial);

    const std::vector<std::unique_ptr<Known>>& rules() const { return m_rules; }

private:
    using Others = std::vector<std::pair<ebtables::Origin, std::size_t>>; // marks and places, ascending
    std::unique_ptr<Known> takeSame(const Others& others, const FlatRule& rule);

    std::vector<std::unique_ptr<Known>> m_rules;
};

} // namespace compiled
