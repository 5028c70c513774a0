// Sets of frames: all that a question leaves open, all that a rule matches, and what is left of them.
//
// A rule's matches (but for the ports of the bridge) are conditions, each about one property of a frame; a region is
// what conditions leave. Everything is exact: a region that can be narrowed has a frame in it, and gives it.
#pragma once

#include "ebtables/command.hpp"
#include "moatctl/bridge/frame.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace moatctl
{

// What rules tell frames apart by. Properties of IP packets count for untagged frames of that type only, those of tags
// for tagged ones: whatever a frame of another kind has there changes nothing.
enum class Property : std::uint8_t {
    // addresses
    Source,
    Destination,
    Ip4Source,
    Ip4Destination,
    Ip6Source,
    Ip6Destination,
    // numbers
    Type, // of the outermost header: that of the tag for a tagged frame, anyLength for a length
    VlanId,
    VlanPriority,
    Encapsulated, // the type behind the tag
    Ip4Protocol,
    Ip6Protocol, // behind the extension headers; noProtocol where none can be found
    SourcePort,
    DestinationPort,
    Readable, // how much of an IP packet there is: see below
};
inline constexpr std::size_t addressCount = 6;
inline constexpr std::size_t numberCount = 9;

inline constexpr std::uint32_t anyLength = ethertype::firstNumber - 1;
inline constexpr std::uint32_t noProtocol = 256;
// Of a packet that is cut off before its header ends, no rule about IP matches anything; without ports (a later
// fragment, or cut off there) none about ports.
inline constexpr std::uint32_t noHeader = 0;
inline constexpr std::uint32_t noPorts = 1;
inline constexpr std::uint32_t wholePacket = 2;

struct Bits128 {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
};

// A frame, as far as rules look at it.
struct FramePoint {
    std::array<Bits128, addressCount> addresses{};
    std::array<std::uint32_t, numberCount> numbers{};
};

// An address has these bits, or a number is in this range; or, negated, it is not so.
struct FrameCondition {
    Property property{};
    bool negated = false;
    std::uint32_t first = 0; // numbers: both ends included
    std::uint32_t last = 0;
    Bits128 value{}; // addresses: where the mask has ones
    Bits128 mask{};

    bool holds(const FramePoint& frame) const;
    FrameCondition negation() const;
};

// All of them hold for a frame exactly if the rule matches it, once its ports match.
std::vector<FrameCondition> conditionsOf(const ebtables::Rule& rule);

// What conditions leave of all frames. At least one, always.
class FrameRegion
{
public:
    // All frames that the bridge takes: from stations.
    FrameRegion();

    // Leaves the frames for which the condition holds. False when there are none: nothing has changed then.
    bool narrow(const FrameCondition& condition);
    // Leaves those for which all of them hold. False: only some of the conditions have narrowed it.
    bool narrow(const std::vector<FrameCondition>& conditions);

    // The condition holds for all of them. One-sided: true is certain.
    bool implies(const FrameCondition& condition) const;

    // One of them; the same as before as long as that is still there.
    const FramePoint& sample() const { return m_sample; }

private:
    struct Cube { // addresses that have these bits
        Bits128 value{};
        Bits128 mask{};
    };
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };
    struct Addresses {
        Cube within;
        std::vector<Cube> without;
    };

    static std::optional<Bits128> find(Cube within, std::vector<const Cube*> without, const Bits128& preferred);
    bool narrowAddress(const FrameCondition& condition);
    bool narrowNumber(const FrameCondition& condition);

    std::array<Addresses, addressCount> m_addresses;
    std::array<std::vector<Range>, numberCount> m_numbers; // ascending
    FramePoint m_sample;
};

// Frames that are not described in full.
struct FrameQuestion {
    Frame frame;             // what is set is so; its ports and its tag's absence say nothing
    bool tagged = true;      // whether tagged frames are asked for, where the frame has no tag
    bool anyPriority = true; // where it has one
};

// The question's frames: those of all regions.
std::vector<FrameRegion> regionsOf(const FrameQuestion& question);

// With what rules look at. A packet that is cut off is like a whole one here.
Frame frameAt(const FramePoint& point);

} // namespace moatctl
