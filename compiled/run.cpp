#include "compiled/run.hpp"

#include <algorithm>
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
constexpr std::uint8_t usualLength = 5; // of an IPv4 header, in words

// Both are read, or none.
Field portsBehind(std::uint8_t offset)
{
    return {Header::Network, offset, 4};
}

MaskedField whole(const Field& field)
{
    return {field, Bytes(field.size, 0xff)};
}

Condition present(const Field& field)
{
    return {Condition::Kind::Present, whole(field), {}};
}

Condition hasType(Family family)
{
    const std::uint16_t type = typeOf(family);
    return {Condition::Kind::Equal,
            whole(typeField),
            {static_cast<std::uint8_t>(type >> 8U), static_cast<std::uint8_t>(type)}};
}

Condition hasLength(Condition::Kind kind, std::uint8_t words)
{
    return {kind, {ip4Length, {0x0f}}, {words}};
}

Condition isNoLaterFragment()
{
    return {Condition::Kind::Equal, {ip4Fragment, {0x1f, 0xff}}, {0, 0}};
}

class RunMaker
{
public:
    RunMaker(const std::string& name, const std::vector<KeyedItem>& run, const Surroundings& surroundings)
        : m_name(name), m_run(run), m_with(surroundings), m_key(run.front().key)
    {
        m_intervals = std::ranges::any_of(run, [&](const KeyedItem& item) { return item.key.mask != m_key.mask; });
        // The kernel has no map of concatenated intervals of one part only.
        m_withType = m_intervals && m_key.parts.size() == 1;
    }

    std::vector<Step> make()
    {
        LookUp lookUp{m_with.program.maps.size(), keyParts()};
        m_with.program.maps.push_back(map());
        std::vector<Condition> conditions;
        if (m_key.family != Family::Any && !m_withType)
            conditions.push_back(hasType(m_key.family));
        addPresence(conditions);
        if (!dependsOnHeaderLength(m_key)) {
            m_steps.push_back({conditions, lookUp});
            if (dependsOnExtensions(m_key))
                addExtensions();
            return std::move(m_steps);
        }
        conditions.push_back(isNoLaterFragment());
        std::vector<Condition> usual = conditions;
        usual.push_back(hasLength(Condition::Kind::Equal, usualLength));
        if (!m_key.has(Part::Ip4DestinationPort))
            usual.push_back(present(portsBehind(usualLength * 4)));
        m_steps.push_back({std::move(usual), lookUp});
        conditions.push_back(hasLength(Condition::Kind::Differs, usualLength));
        addOtherLengths(std::move(conditions), lookUp);
        return std::move(m_steps);
    }

private:
    std::vector<MaskedField> keyParts() const
    {
        std::vector<MaskedField> parts;
        if (m_withType)
            parts.push_back(whole(fieldOf(Part::Type)));
        auto mask = m_key.mask.begin();
        for (const Part part : m_key.parts) {
            const Field field = fieldOf(part);
            parts.push_back(m_intervals ? whole(field) : MaskedField{field, Bytes(mask, mask + field.size)});
            mask += field.size;
        }
        return parts;
    }

    Map map() const
    {
        Map map;
        map.name = m_name;
        map.intervals = m_intervals;
        map.counts = true;
        if (m_withType)
            map.sizes.push_back(typeField.size);
        for (const Part part : m_key.parts)
            map.sizes.push_back(fieldOf(part).size);
        map.elements.reserve(m_run.size());
        for (const KeyedItem& item : m_run)
            map.elements.push_back(elementOf(item));
        return map;
    }

    Element elementOf(const KeyedItem& item) const
    {
        Element element;
        if (m_withType)
            element.first = hasType(m_key.family).value;
        element.first.insert(element.first.end(), item.key.value.begin(), item.key.value.end());
        element.last = element.first;
        if (m_intervals) {
            const std::size_t skipped = element.last.size() - item.key.mask.size();
            for (std::size_t i = 0; i < item.key.mask.size(); ++i)
                element.last[skipped + i] |= static_cast<std::uint8_t>(~item.key.mask[i]);
        }
        element.origin = item.item.origin;
        const std::string& target = item.item.rule.target;
        if (item.item.rule.log)
            element.verdict = {Verdict::Kind::Goto, m_with.loggingChain(item.item.rule)};
        else
            element.verdict.kind = target == "ACCEPT" ? Verdict::Kind::Accept
                                   : target == "DROP" ? Verdict::Kind::Drop
                                                      : Verdict::Kind::Return;
        return element;
    }

    // A rule about a header matches no frame that is too short for it, whatever part of it the rule is about; one about
    // a port none that is too short for both. What the key loads from behind is there anyway.
    void addPresence(std::vector<Condition>& conditions) const
    {
        if (m_key.family == Family::Vlan && !m_key.has(Part::Encapsulated))
            conditions.push_back(present(lastOfTag));
        if (m_key.family == Family::Ip4 && !m_key.has(Part::Ip4Destination))
            conditions.push_back(present(lastOfIp4));
        if (m_key.family != Family::Ip6 || m_key.has(Part::Ip6DestinationPort))
            return;
        if (m_key.has(Part::Ip6SourcePort))
            conditions.push_back(present(portsBehind(fieldOf(Part::Ip6SourcePort).offset)));
        else if (!m_key.has(Part::Ip6Destination))
            conditions.push_back(present(lastOfIp6));
    }

    // The other fifteen lengths that a header can say it has.
    void addOtherLengths(std::vector<Condition> conditions, const LookUp& usual)
    {
        Chain chain;
        chain.name = m_name + "/lengths";
        for (std::uint8_t words = 0; words < 16; ++words) {
            if (words == usualLength)
                continue;
            LookUp lookUp = usual;
            const auto behind = static_cast<std::uint8_t>(words * 4);
            for (MaskedField& part : lookUp.key) {
                if (part.field == fieldOf(Part::Ip4SourcePort) || part.field == fieldOf(Part::Ip4DestinationPort))
                    part.field.offset = static_cast<std::uint8_t>(part.field.offset - usualLength * 4 + behind);
            }
            chain.steps.push_back(
                {{hasLength(Condition::Kind::Equal, words), present(portsBehind(behind))}, std::move(lookUp)});
        }
        m_steps.push_back({std::move(conditions), Jump{chain.name}});
        m_with.program.chains.push_back(std::move(chain));
    }

    void addExtensions()
    {
        Chain chain;
        chain.name = m_name + "/extensions";
        for (const KeyedItem& item : m_run)
            chain.steps.push_back({{}, PlainRule{item.item.rule, item.item.origin}});
        const Condition isExtension{Condition::Kind::OneOf, whole(fieldOf(Part::Ip6Protocol)),
                                    Bytes(std::begin(ip6Extensions), std::end(ip6Extensions))};
        m_steps.push_back({{hasType(Family::Ip6), isExtension}, Jump{chain.name}});
        m_with.program.chains.push_back(std::move(chain));
    }

    const std::string& m_name;
    const std::vector<KeyedItem>& m_run;
    const Surroundings& m_with;
    const RuleKey& m_key; // the first one's; the others have the same parts
    bool m_intervals = false;
    bool m_withType = false;
    std::vector<Step> m_steps;
};

} // namespace

std::vector<Step> runOf(const std::string& name, const std::vector<KeyedItem>& run, const Surroundings& surroundings)
{
    return RunMaker(name, run, surroundings).make();
}

} // namespace compiled
