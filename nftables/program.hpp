// The compiled form of the rules as messages.
//
// No operation throws but std::bad_alloc.
#pragma once

#include "compiled/difference.hpp"
#include "compiled/program.hpp"
#include "nftables/batch.hpp"

#include <linux/netfilter/nf_tables.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nftables
{

// What rules have counted, by their marks.
using CountersByMark = std::unordered_map<ebtables::Origin, Counters>;

// Adds all of the program to the batch: chains, maps with their elements, and a rule for each step, in this order.
// Nothing of it may be in the batch's table yet.
void addProgram(Batch& batch, const compiled::Program& program);

// Adds what makes the program `to` of the program `from`, which the batch's table holds; difference: between these. In
// an order that the kernel takes: rules before what they need, away; what they need before rules, anew. `counted` goes
// to those with such a mark that are put in anew, to one of each mark.
//
// Returns for each message that it has added the mark of the rule that the message is about, if it is about one.
std::vector<ebtables::Origin> addChanges(Batch& batch, const compiled::Program& from, const compiled::Program& to,
                                         const compiled::Difference& difference, CountersByMark counted = {});

// The marks that are taken out by the difference and put in again elsewhere: what they have counted would be lost.
std::vector<ebtables::Origin> movedMarks(const compiled::Program& from, const compiled::Program& to,
                                         const compiled::Difference& difference);

// Takes the table out, with all that is in it, and makes an empty one in its place.
void renewTable(Batch& batch);

// What the kernel is told that its elements have.
std::uint32_t dataTypeOf(const compiled::Map& map);

// A map's user data: this, how many parts its keys have, and their sizes.
inline constexpr std::uint8_t sizesType = 0xb8;

// Names in the kernel. A map that becomes one of intervals is another map there, so that both can be there at a time.
std::string nameOf(const compiled::Map& map);
// Values that a field may have are a set that is named for them.
std::string nameOf(const compiled::Condition& oneOf);

// Where the steps of a chain are: those of one with a hook are in a chain of their own, so that a policy, and what
// leads there by a RETURN, can be a rule behind them: rules change all at one moment, and with them only they.
std::string chainOfSteps(const compiled::Chain& chain);
compiled::Step dropStep();

// ---- which of two places comes first
//
// The kernel compares a register with a value, but not with another register. So places are two digits, and sets know
// which pairs of digits are which: (high, high) -> whether that decides or the low ones are to be asked; (low, that
// answer, low). What few elements share comes first in a key: the kernel looks part by part, at those that are left.
// Each of the sets is the same for all programs.

inline constexpr const char* highDigits = "before/high";
inline constexpr const char* lowDigits = "before/low";
inline constexpr std::uint32_t lowFlags = NFT_SET_INTERVAL | NFT_SET_CONCAT;
inline constexpr std::uint32_t highFlags = NFT_SET_MAP | lowFlags;
inline constexpr std::uint32_t placeRegister = 14; // a word, and the next one: behind the longest key of a race

struct DigitsInterval {
    compiled::Bytes first;
    compiled::Bytes last;
    std::optional<std::uint8_t> answer; // in highDigits
    auto operator<=>(const DigitsInterval&) const = default;
};
std::vector<DigitsInterval> digitsIn(std::string_view set);

// ----

// Each part of a key begins a word of its own; and back.
compiled::Bytes padded(const compiled::Bytes& key, const std::vector<std::uint8_t>& sizes);
compiled::Bytes unpadded(const compiled::Bytes& key, const std::vector<std::uint8_t>& sizes);

} // namespace nftables
