// How a frame is asked whether a map has its key.
#pragma once

#include "compiled/key.hpp"
#include "compiled/program.hpp"

#include <cstdint>
#include <vector>

namespace compiled
{

inline constexpr std::uint8_t usualLength = 5; // of an IPv4 header, in words

Condition hasType(Family family); // not Any

Condition hasLength(std::uint8_t words); // of the IPv4 header

// Frames with other than the usual length of their IPv4 header, and those with extension headers behind the IPv6 one.
// Their ports, and the latter's protocol, are elsewhere than fieldOf says.
std::vector<Condition> hasOtherLength();
std::vector<Condition> hasExtensions();

// What a frame must have for a key like this, beside what fieldsOf loads: a rule about a header matches no frame that
// is too short for all of it, whatever part of it the rule is about, and one about a port none that is too short for
// both. words: the length of the IPv4 header that the frames are to have, when the key depends on it.
std::vector<Condition> conditionsOf(const RuleKey& key, std::uint8_t words = usualLength);

// Where the parts are in such a frame, with the key's mask.
std::vector<MaskedField> fieldsOf(const RuleKey& key, std::uint8_t words = usualLength);

} // namespace compiled
