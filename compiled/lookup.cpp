#include "compiled/lookup.hpp"

#include <iterator>
#include <utility>

namespace compiled
{

namespace
{

constexpr Field typeField{Header::Link, 12, 2};
constexpr Field lastOfTag{Header::Link, 17, 1};
constexpr Field ip4Length{Header::Network, 0, 1};
constexpr Field ip4Fragment{Header::Network, 6, 2};
constexpr Field lastOfIp4{Header::Network, 19, 1};
constexpr Field lastOfIp6{Header::Network, 39, 1};

Condition present(const Field& field)
{
    return {Condition::Kind::Present, whole(field), {}};
}

// Both are read, or none.
Condition hasPorts(std::uint8_t behind)
{
    return present({Header::Network, behind, 4});
}

Condition isNoLaterFragment()
{
    return {Condition::Kind::Equal, {ip4Fragment, {0x1f, 0xff}}, {0, 0}};
}

} // namespace

Condition hasType(Family family)
{
    const std::uint16_t type = typeOf(family);
    return {Condition::Kind::Equal,
            whole(typeField),
            {static_cast<std::uint8_t>(type >> 8U), static_cast<std::uint8_t>(type)}};
}

Condition hasLength(std::uint8_t words)
{
    return {Condition::Kind::Equal, {ip4Length, {0x0f}}, {words}};
}

std::vector<Condition> hasOtherLength()
{
    Condition length = hasLength(usualLength);
    length.kind = Condition::Kind::Differs;
    return {hasType(Family::Ip4), std::move(length)};
}

std::vector<Condition> hasExtensions()
{
    return {hasType(Family::Ip6),
            {Condition::Kind::OneOf, whole(fieldOf(Part::Ip6Protocol)),
             Bytes(std::begin(ip6Extensions), std::end(ip6Extensions))}};
}

// What the key loads from behind is there anyway.
std::vector<Condition> conditionsOf(const RuleKey& key, std::uint8_t words)
{
    std::vector<Condition> conditions;
    if (key.family != Family::Any)
        conditions.push_back(hasType(key.family));
    if (key.family == Family::Vlan && !key.has(Part::Encapsulated))
        conditions.push_back(present(lastOfTag));
    if (key.family == Family::Ip4 && !key.has(Part::Ip4Destination))
        conditions.push_back(present(lastOfIp4));
    if (key.family == Family::Ip6 && !key.has(Part::Ip6DestinationPort)) {
        if (key.has(Part::Ip6SourcePort))
            conditions.push_back(hasPorts(fieldOf(Part::Ip6SourcePort).offset));
        else if (!key.has(Part::Ip6Destination))
            conditions.push_back(present(lastOfIp6));
    }
    if (dependsOnHeaderLength(key)) {
        conditions.push_back(isNoLaterFragment());
        conditions.push_back(hasLength(words));
        if (!key.has(Part::Ip4DestinationPort))
            conditions.push_back(hasPorts(static_cast<std::uint8_t>(words * 4)));
    }
    return conditions;
}

std::vector<MaskedField> fieldsOf(const RuleKey& key, std::uint8_t words)
{
    std::vector<MaskedField> fields;
    auto mask = key.mask.begin();
    for (const Part part : key.parts) {
        Field field = fieldOf(part);
        fields.push_back({field, Bytes(mask, mask + field.size)});
        mask += field.size;
        if (part == Part::Ip4SourcePort || part == Part::Ip4DestinationPort)
            fields.back().field.offset = static_cast<std::uint8_t>(field.offset - usualLength * 4 + words * 4);
    }
    return fields;
}

} // namespace compiled
