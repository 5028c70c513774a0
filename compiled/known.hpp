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
    // What is asked of every rule of every commit comes first: it shares a line of the processor's cache.
    std::uint64_t serial = 0; // of this rule at this time: who has the same serials as before has the same rules
    std::shared_ptr<const Form> form; // of the key
    std::optional<Decided> keyFor;    // what was decided when the key was made
    bool returns = false;             // its target
    Item item;
    std::optional<RuleKey> key;
    std::unique_ptr<const ebtables::FixedBits> bits; // likewise; only where they were asked for

    // Makes sure of key and form. In classes of other kinds it may have another key.
    void findKey(Decided decided, Forms& forms);
    // What the rule fixes, without what was decided.
    const ebtables::FixedBits& fixedBits();
};

using KnownRules = std::span<Known* const>;
using Serials = std::vector<std::uint64_t>;

// Rules with their serials beside them: what is compared most.
struct RuleList {
    std::vector<Known*> rules;
    Serials serials;
};
// Rules with what else is asked of each again and again, side by side.
struct FormedRules {
    KnownRules rules;
    std::span<const std::uint64_t> serials;
    std::span<const Form* const> forms; // null for a rule without a key

    std::size_t size() const { return rules.size(); }
    FormedRules subspan(std::size_t first, std::size_t count) const
    {
        return {rules.subspan(first, count), serials.subspan(first, count), forms.subspan(first, count)};
    }
};

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
    const Serials& serials() const { return m_serials; }
    std::span<const RuleTag> tags() const { return m_tags; }

private:
    using Others = std::vector<std::pair<ebtables::Origin, std::size_t>>; // marks and places, ascending
    bool isSame(std::size_t place, const FlatRule& rule) const;
    std::unique_ptr<Known> takeSame(const Others& others, const FlatRule& rule);

    std::vector<std::unique_ptr<Known>> m_rules;
    Serials m_serials;           // of these
    std::vector<RuleTag> m_tags; // likewise
};

} // namespace compiled
