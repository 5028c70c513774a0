#include "moatctl/bridge/frame_region.hpp"

#include <algorithm>
#include <bit>
#include <initializer_list>
#include <utility>

namespace moatctl
{

namespace
{

constexpr std::uint64_t ones = ~std::uint64_t{0};
constexpr std::uint64_t groupBit = std::uint64_t{1} << 40U;
constexpr std::uint32_t lastType = 0xffff;

constexpr std::array<unsigned, addressCount> widths{48, 48, 32, 32, 128, 128};
// What addresses are where nothing says otherwise: such that rules hardly name them.
constexpr std::array<Bits128, addressCount> usual{{{0, 0x025e'9a4c'17d3},
                                                   {0, 0x025e'6b38'c2a5},
                                                   {0, 0xc633'649d},
                                                   {0, 0xcb00'715b},
                                                   {0x2001'0db8'5e9a'4c17, 0xd36b'38c2'a54f'9a1d},
                                                   {0x2001'0db8'a54f'9a1d, 0x5e17'd36b'4cc2'386e}}};
constexpr std::array<std::uint32_t, numberCount> lastNumbers{lastType,   4095,   7,      lastType,   255,
                                                             noProtocol, 0xffff, 0xffff, wholePacket};

constexpr std::size_t indexOf(Property property)
{
    const auto index = static_cast<std::size_t>(property);
    return index < addressCount ? index : index - addressCount;
}

constexpr bool isAddress(Property property)
{
    return static_cast<std::size_t>(property) < addressCount;
}

Bits128 operator&(const Bits128& a, const Bits128& b)
{
    return {a.high & b.high, a.low & b.low};
}
Bits128 operator|(const Bits128& a, const Bits128& b)
{
    return {a.high | b.high, a.low | b.low};
}
Bits128 operator~(const Bits128& a)
{
    return {~a.high, ~a.low};
}
bool any(const Bits128& a)
{
    return (a.high | a.low) != 0;
}
// Whether they differ where the mask has ones.
bool differ(const Bits128& a, const Bits128& b, const Bits128& mask)
{
    return (((a.high ^ b.high) & mask.high) | ((a.low ^ b.low) & mask.low)) != 0;
}
Bits128 highestBit(const Bits128& a)
{
    return a.high != 0 ? Bits128{std::bit_floor(a.high), 0} : Bits128{0, std::bit_floor(a.low)};
}

template <std::size_t N>
Bits128 bitsOf(const std::array<std::uint8_t, N>& bytes)
{
    Bits128 bits;
    for (const std::uint8_t byte : bytes)
        bits = {bits.high << 8U | bits.low >> 56U, bits.low << 8U | byte};
    return bits;
}

template <std::size_t N>
std::array<std::uint8_t, N> bytesOf(Bits128 bits)
{
    std::array<std::uint8_t, N> bytes{};
    for (std::size_t i = N; i > 0; --i) {
        bytes[i - 1] = static_cast<std::uint8_t>(bits.low);
        bits = {bits.high >> 8U, bits.low >> 8U | bits.high << 56U};
    }
    return bytes;
}

FrameCondition inRange(Property property, std::uint32_t first, std::uint32_t last, bool negated = false)
{
    return {property, negated, first, last, {}, {}};
}

FrameCondition is(Property property, std::uint32_t number, bool negated = false)
{
    return inRange(property, number, number, negated);
}

template <std::size_t N>
FrameCondition isExactly(Property property, const std::array<std::uint8_t, N>& address)
{
    std::array<std::uint8_t, N> mask;
    mask.fill(0xff);
    return {property, false, 0, 0, bitsOf(address), bitsOf(mask)};
}

std::uint32_t typeOf(std::uint16_t field)
{
    return std::max<std::uint32_t>(field, anyLength);
}

// Collects the conditions of a rule.
class Conditions
{
public:
    void add(FrameCondition condition) { m_conditions.push_back(condition); }
    void add(Property property, const auto& match) // an address
    {
        if (match)
            add({property, match->negated, 0, 0, bitsOf(match->address), bitsOf(match->mask)});
    }
    void add(Property property, const std::optional<ebtables::RangeMatch>& match)
    {
        if (match)
            add(inRange(property, match->first, match->last, match->negated));
    }
    void add(Property property, const std::optional<ebtables::EthertypeMatch>& match)
    {
        if (match)
            add(is(property, match->lengthField ? anyLength : match->number, match->negated));
    }

    template <std::size_t N>
    void addIp(const ebtables::IpMatches<N>& ip)
    {
        constexpr bool four = N == 4;
        if (!ip.any())
            return;
        add(is(Property::Type, four ? ethertype::ip4 : ethertype::ip6));
        add(four ? Property::Ip4Source : Property::Ip6Source, ip.source);
        add(four ? Property::Ip4Destination : Property::Ip6Destination, ip.destination);
        if (!four && ip.protocol)
            add(is(Property::Ip6Protocol, noProtocol, true));
        add(four ? Property::Ip4Protocol : Property::Ip6Protocol, ip.protocol);
        add(Property::SourcePort, ip.sourcePort);
        add(Property::DestinationPort, ip.destinationPort);
        add(inRange(Property::Readable, ip.sourcePort || ip.destinationPort ? wholePacket : noPorts, wholePacket));
    }

    std::vector<FrameCondition> take() { return std::move(m_conditions); }

private:
    std::vector<FrameCondition> m_conditions;
};

} // namespace

bool FrameCondition::holds(const FramePoint& frame) const
{
    if (isAddress(property))
        return differ(frame.addresses[indexOf(property)], value, mask) == negated;
    const std::uint32_t number = frame.numbers[indexOf(property)];
    return (first <= number && number <= last) != negated;
}

FrameCondition FrameCondition::negation() const
{
    FrameCondition other = *this;
    other.negated = !negated;
    return other;
}

std::vector<FrameCondition> conditionsOf(const ebtables::Rule& rule)
{
    Conditions conditions;
    conditions.add(Property::Type, rule.ethertype);
    conditions.add(Property::Source, rule.source);
    conditions.add(Property::Destination, rule.destination);
    conditions.addIp(rule.ip);
    conditions.addIp(rule.ip6);
    if (rule.vlan.any()) {
        conditions.add(is(Property::Type, ethertype::vlan));
        conditions.add(Property::VlanId, rule.vlan.id);
        conditions.add(Property::VlanPriority, rule.vlan.priority);
        conditions.add(Property::Encapsulated, rule.vlan.encapsulated);
    }
    return conditions.take();
}

FrameRegion::FrameRegion()
{
    for (std::size_t i = 0; i < addressCount; ++i) {
        // Bits that the address does not have are zeros.
        const Bits128 beyond = widths[i] == 128 ? Bits128{} : Bits128{ones, ones << widths[i]};
        m_addresses[i].within = {{}, beyond};
        m_sample.addresses[i] = usual[i];
    }
    for (std::size_t i = 0; i < numberCount; ++i)
        m_numbers[i] = {{0, lastNumbers[i]}};
    for (const Property property : {Property::Type, Property::Encapsulated}) {
        m_numbers[indexOf(property)] = {{anyLength, lastType}};
        m_sample.numbers[indexOf(property)] = ethertype::ip4;
    }
    m_sample.numbers[indexOf(Property::VlanId)] = 1;
    m_sample.numbers[indexOf(Property::Ip4Protocol)] = ipProtocol::tcp;
    m_sample.numbers[indexOf(Property::Ip6Protocol)] = ipProtocol::tcp;
    m_sample.numbers[indexOf(Property::SourcePort)] = 49173;
    m_sample.numbers[indexOf(Property::DestinationPort)] = 28731;
    m_sample.numbers[indexOf(Property::Readable)] = wholePacket;

    constexpr Bits128 group{0, groupBit};
    m_addresses[indexOf(Property::Source)].within.mask = m_addresses[indexOf(Property::Source)].within.mask | group;
    m_addresses[indexOf(Property::Source)].without = {{{}, {ones, ones}}};
}

// Splits along the bits of one of the cubes to be avoided: a frame outside of it differs in one of them.
std::optional<Bits128> FrameRegion::find(Cube within, std::vector<const Cube*> without, const Bits128& preferred)
{
    std::erase_if(without,
                  [&](const Cube* cube) { return differ(cube->value, within.value, cube->mask & within.mask); });
    const Bits128 first = (within.value & within.mask) | (preferred & ~within.mask);
    const auto takes = [&](const Cube* cube) { return !differ(cube->value, first, cube->mask); };
    const auto taking = std::ranges::find_if(without, takes);
    if (taking == without.end())
        return first;
    const Cube avoided = **taking;
    for (Bits128 open = avoided.mask & ~within.mask; any(open);) {
        const Bits128 bit = highestBit(open);
        open = open & ~bit;
        within.mask = within.mask | bit;
        within.value = (within.value & ~bit) | (~avoided.value & bit);
        if (const std::optional<Bits128> found = find(within, without, preferred))
            return found;
        within.value = (within.value & ~bit) | (avoided.value & bit);
    }
    return std::nullopt;
}

bool FrameRegion::narrowAddress(const FrameCondition& condition)
{
    const std::size_t index = indexOf(condition.property);
    Addresses& addresses = m_addresses[index];
    Cube& within = addresses.within;
    const Cube before = within;
    const bool apart = differ(within.value, condition.value, within.mask & condition.mask);
    if (apart || !any(condition.mask & ~within.mask))
        return apart == condition.negated; // all of them, or none
    if (condition.negated) {
        addresses.without.push_back({condition.value, condition.mask});
    } else {
        within.value = (within.value & within.mask) | (condition.value & condition.mask);
        within.mask = within.mask | condition.mask;
    }
    if (condition.holds(m_sample))
        return true;
    std::vector<const Cube*> without;
    without.reserve(addresses.without.size());
    for (const Cube& cube : addresses.without)
        without.push_back(&cube);
    if (const std::optional<Bits128> found = find(within, std::move(without), usual[index])) {
        m_sample.addresses[index] = *found;
        return true;
    }
    within = before;
    if (condition.negated)
        addresses.without.pop_back();
    return false;
}

bool FrameRegion::narrowNumber(const FrameCondition& condition)
{
    const std::size_t index = indexOf(condition.property);
    std::vector<Range>& ranges = m_numbers[index];
    // Those that have something in common with the condition's.
    const auto begin =
        std::ranges::partition_point(ranges, [&](const Range& range) { return range.last < condition.first; });
    const auto end =
        std::partition_point(begin, ranges.end(), [&](const Range& range) { return range.first <= condition.last; });
    if (begin == end)
        return condition.negated;
    std::vector<Range> left;
    if (condition.negated) {
        if (begin->first < condition.first)
            left.push_back({begin->first, condition.first - 1});
        if (std::prev(end)->last > condition.last)
            left.push_back({condition.last + 1, std::prev(end)->last});
        if (left.empty() && static_cast<std::size_t>(end - begin) == ranges.size())
            return false;
        ranges.insert(ranges.erase(begin, end), left.begin(), left.end());
    } else {
        left.assign(begin, end);
        left.front().first = std::max(left.front().first, condition.first);
        left.back().last = std::min(left.back().last, condition.last);
        ranges = std::move(left);
    }
    if (!condition.holds(m_sample)) {
        // Whatever rules name is seldom in the middle of the largest gap.
        const auto largest =
            std::ranges::max_element(ranges, {}, [](const Range& range) { return range.last - range.first; });
        m_sample.numbers[index] = largest->first + (largest->last - largest->first) / 2;
    }
    return true;
}

bool FrameRegion::narrow(const FrameCondition& condition)
{
    return isAddress(condition.property) ? narrowAddress(condition) : narrowNumber(condition);
}

bool FrameRegion::narrow(const std::vector<FrameCondition>& conditions)
{
    return std::ranges::all_of(conditions, [this](const FrameCondition& condition) { return narrow(condition); });
}

bool FrameRegion::implies(const FrameCondition& condition) const
{
    const std::size_t index = indexOf(condition.property);
    if (isAddress(condition.property)) {
        const Cube& within = m_addresses[index].within;
        const bool apart = differ(within.value, condition.value, within.mask & condition.mask);
        return condition.negated ? apart : !apart && !any(condition.mask & ~within.mask);
    }
    return std::ranges::all_of(m_numbers[index], [&](const Range& range) {
        return condition.negated ? range.last < condition.first || condition.last < range.first
                                 : condition.first <= range.first && range.last <= condition.last;
    });
}

namespace
{

// The conditions of the question that a frame of this type must meet.
std::vector<FrameCondition> ipConditions(const Frame& frame, std::uint16_t type)
{
    std::vector<FrameCondition> conditions;
    const bool four = type == ethertype::ip4;
    const auto addAddress = [&](Property property, const auto& address) {
        if (address)
            conditions.push_back(isExactly(property, *address));
    };
    addAddress(Property::Ip4Source, frame.ip4Source);
    addAddress(Property::Ip4Destination, frame.ip4Destination);
    addAddress(Property::Ip6Source, frame.ip6Source);
    addAddress(Property::Ip6Destination, frame.ip6Destination);
    if (!conditions.empty() || frame.protocol)
        conditions.push_back(is(Property::Readable, noHeader, true));
    const Property protocol = four ? Property::Ip4Protocol : Property::Ip6Protocol;
    // The kernel does not look behind the fragment header of a later IPv6 fragment.
    if (!four && frame.laterFragment)
        conditions.push_back(is(protocol, ipProtocol::ip6Fragment));
    else if (frame.protocol)
        conditions.push_back(
            is(protocol, !four && *frame.protocol == ipProtocol::ip6NoNext ? noProtocol : *frame.protocol));
    else if (!four) {
        // Nothing that is an extension header itself is behind those.
        for (const std::uint32_t header : {0U, 43U, 51U, 59U, 60U})
            conditions.push_back(is(protocol, header, true));
    }
    for (const auto& [property, port] : {std::pair(Property::SourcePort, frame.sourcePort),
                                         std::pair(Property::DestinationPort, frame.destinationPort)}) {
        if (port && !frame.laterFragment) {
            conditions.push_back(is(property, *port));
            conditions.push_back(is(Property::Readable, wholePacket));
        }
    }
    if (frame.laterFragment)
        conditions.push_back(is(Property::Readable, noPorts));
    return conditions;
}

bool isAboutIp(const Frame& frame)
{
    return frame.protocol || frame.sourcePort || frame.destinationPort || frame.laterFragment;
}

} // namespace

std::vector<FrameRegion> regionsOf(const FrameQuestion& question)
{
    const Frame& frame = question.frame;
    FrameRegion all;
    if (frame.source)
        all.narrow(isExactly(Property::Source, *frame.source));
    if (frame.destination)
        all.narrow(isExactly(Property::Destination, *frame.destination));

    std::vector<FrameRegion> regions;
    const auto add = [&regions](FrameRegion region, const std::vector<FrameCondition>& conditions) {
        if (region.narrow(conditions))
            regions.push_back(std::move(region));
    };
    const auto addOfType = [&](bool tagged) {
        FrameRegion region = all;
        region.narrow(is(Property::Type, ethertype::vlan, !tagged));
        if (tagged && frame.vlan)
            region.narrow(is(Property::VlanId, frame.vlan->id));
        if (tagged && frame.vlan && !question.anyPriority)
            region.narrow(is(Property::VlanPriority, frame.vlan->priority));
        // What is in a packet behind a tag is seen by no rule.
        const Property property = tagged ? Property::Encapsulated : Property::Type;
        const auto ip = [&](std::uint16_t type) {
            return tagged ? std::vector<FrameCondition>() : ipConditions(frame, type);
        };
        for (const std::uint16_t type : {ethertype::ip4, ethertype::ip6}) {
            if (frame.type ? *frame.type != type : !isAboutIp(frame) && type == ethertype::ip6)
                continue;
            FrameRegion ofType = region;
            if ((frame.type || isAboutIp(frame)) && !ofType.narrow(is(property, type)))
                continue;
            // Without a type it is any frame, and what an IPv6 packet in it may be counts.
            add(std::move(ofType), ip(frame.type || isAboutIp(frame) ? type : ethertype::ip6));
        }
        if (frame.type && *frame.type != ethertype::ip4 && *frame.type != ethertype::ip6)
            add(std::move(region), {is(property, typeOf(*frame.type))});
    };
    if (!frame.vlan)
        addOfType(false);
    if (frame.vlan || question.tagged)
        addOfType(true);
    return regions;
}

Frame frameAt(const FramePoint& point)
{
    const auto number = [&](Property property) { return point.numbers[indexOf(property)]; };
    const auto address = [&](Property property) { return point.addresses[indexOf(property)]; };
    const auto typeField = [](std::uint32_t type) {
        constexpr std::uint16_t someLength = 0x40;
        return type == anyLength ? someLength : static_cast<std::uint16_t>(type);
    };
    Frame frame;
    frame.source = bytesOf<6>(address(Property::Source));
    frame.destination = bytesOf<6>(address(Property::Destination));
    if (number(Property::Type) == ethertype::vlan) {
        frame.vlan = VlanTag{static_cast<std::uint16_t>(number(Property::VlanId)),
                             static_cast<std::uint8_t>(number(Property::VlanPriority))};
        frame.type = typeField(number(Property::Encapsulated));
        return frame;
    }
    frame.type = typeField(number(Property::Type));
    const bool four = *frame.type == ethertype::ip4;
    if (!four && *frame.type != ethertype::ip6)
        return frame;
    if (four) {
        frame.ip4Source = bytesOf<4>(address(Property::Ip4Source));
        frame.ip4Destination = bytesOf<4>(address(Property::Ip4Destination));
    } else {
        frame.ip6Source = bytesOf<16>(address(Property::Ip6Source));
        frame.ip6Destination = bytesOf<16>(address(Property::Ip6Destination));
    }
    const std::uint32_t protocol = number(four ? Property::Ip4Protocol : Property::Ip6Protocol);
    frame.protocol = protocol == noProtocol ? ipProtocol::ip6NoNext : static_cast<std::uint8_t>(protocol);
    frame.laterFragment = number(Property::Readable) != wholePacket;
    if (!frame.laterFragment && (*frame.protocol == ipProtocol::tcp || *frame.protocol == ipProtocol::udp)) {
        frame.sourcePort = static_cast<std::uint16_t>(number(Property::SourcePort));
        frame.destinationPort = static_cast<std::uint16_t>(number(Property::DestinationPort));
    }
    return frame;
}

} // namespace moatctl
