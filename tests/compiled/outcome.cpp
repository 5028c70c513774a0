#include "tests/compiled/outcome.hpp"

#include <algorithm>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

namespace test
{

namespace
{

void count(Outcome& outcome, ebtables::Origin origin)
{
    if (origin != ebtables::noOrigin)
        ++outcome.counted[origin];
}

void take(Outcome& outcome, const ebtables::Rule& rule, ebtables::Origin origin)
{
    if (rule.log)
        outcome.logs.emplace_back(rule.log->prefix, rule.log->level);
    count(outcome, origin);
}

class Walker
{
public:
    Walker(const ebtables::Table& table, const RawFrame& frame) : m_table(table), m_frame(frame) {}

    Outcome walk()
    {
        const ebtables::Chain& chain = *m_table.find(m_frame.out.empty() ? "INPUT" : "FORWARD");
        if (walkRules(chain))
            m_outcome.accepted = chain.policy != "DROP";
        return m_outcome;
    }

private:
    // False when the frame's fate is decided.
    bool walkRules(const ebtables::Chain& chain)
    {
        for (const ebtables::TableRule& entry : chain.rules) {
            const ebtables::Rule& rule = *entry.rule;
            if (!matches(rule, m_frame))
                continue;
            take(m_outcome, rule, entry.origin);
            if (rule.target == "ACCEPT" || rule.target == "DROP") {
                m_outcome.accepted = rule.target == "ACCEPT";
                return false;
            }
            if (rule.target == "RETURN")
                return true;
            if (const ebtables::Chain* next = m_table.find(rule.target); next != nullptr && !walkChain(*next))
                return false;
        }
        m_atEnd = true;
        return true;
    }

    bool walkChain(const ebtables::Chain& chain)
    {
        m_atEnd = false;
        if (!walkRules(chain))
            return false;
        if (!std::exchange(m_atEnd, false) || chain.policy == "RETURN")
            return true;
        count(m_outcome, chain.policyOrigin);
        m_outcome.accepted = chain.policy == "ACCEPT";
        return false;
    }

    const ebtables::Table& m_table;
    const RawFrame& m_frame;
    bool m_atEnd = false; // the last chain was not left by a RETURN
    Outcome m_outcome;
};

class Machine
{
public:
    Machine(const compiled::Program& program, const RawFrame& frame)
        : m_program(program), m_frame(frame), m_link(frame.link())
    {
    }

    Outcome run()
    {
        const compiled::Chain& base = chainNamed(m_frame.out.empty() ? "INPUT" : "FORWARD");
        m_at.push_back({&base, 0});
        while (!m_at.empty()) {
            Place& here = m_at.back();
            if (here.step == here.chain->steps.size()) {
                m_at.pop_back();
                continue;
            }
            const compiled::Step& step = here.chain->steps[here.step++];
            const bool hold = std::ranges::all_of(step.conditions, [this](const auto& of) { return holds(of); });
            if (hold && !carryOut(step))
                return m_outcome;
        }
        m_outcome.accepted = !base.dropsByPolicy;
        return m_outcome;
    }

private:
    struct Place {
        const compiled::Chain* chain;
        std::size_t step; // the next one
    };

    const compiled::Chain& chainNamed(const std::string& name) const
    {
        const compiled::Chain* chain = m_program.find(name);
        if (chain == nullptr)
            throw std::logic_error("no chain is called " + name);
        return *chain;
    }

    // False when the frame's fate is decided.
    bool carryOut(const compiled::Step& step)
    {
        if (const auto* jump = std::get_if<compiled::Jump>(&step.action)) {
            if (!jump->comesBack)
                m_at.pop_back();
            m_at.push_back({&chainNamed(jump->chain), 0});
            return true;
        }
        if (const auto* lead = std::get_if<compiled::Lead>(&step.action)) {
            const std::optional<compiled::Place> place = placeIn(lead->place);
            const std::optional<compiled::Place> than = lead->than ? placeIn(*lead->than) : std::nullopt;
            if (lead->than && !than)
                throw std::logic_error("nobody is ahead in " + m_program.maps.at(lead->than->map).name);
            if (place && (!than || *place < *than))
                m_at.back() = {&chainNamed(lead->chain), 0};
            return true;
        }
        if (const auto* plain = std::get_if<compiled::PlainRule>(&step.action)) {
            if (!matches(plain->rule, m_frame))
                return true;
            take(m_outcome, plain->rule, plain->origin);
            return end(plain->rule.target);
        }
        const auto& lookUp = std::get<compiled::LookUp>(step.action);
        const compiled::Element* element = find(m_program.maps.at(lookUp.map), lookUp.key);
        if (element == nullptr)
            return true;
        count(m_outcome, element->origin);
        switch (element->verdict.kind) {
        case compiled::Verdict::Kind::Accept:
            return end("ACCEPT");
        case compiled::Verdict::Kind::Drop:
            return end("DROP");
        case compiled::Verdict::Kind::Return:
            return end("RETURN");
        case compiled::Verdict::Kind::Goto:
            break;
        }
        m_at.back() = {&chainNamed(element->verdict.chain), 0};
        return true;
    }

    bool end(const std::string& target)
    {
        if (target == "ACCEPT" || target == "DROP") {
            m_outcome.accepted = target == "ACCEPT";
            return false;
        }
        if (target == "RETURN")
            m_at.pop_back();
        else if (target != "CONTINUE" && m_program.find(target) != nullptr)
            m_at.push_back({&chainNamed(target), 0});
        return true;
    }

    std::optional<compiled::Place> placeIn(const compiled::LookUp& lookUp) const
    {
        const compiled::Map& map = m_program.maps.at(lookUp.map);
        if (!map.places)
            throw std::logic_error(map.name + " has no places");
        const compiled::Element* element = find(map, lookUp.key);
        return element == nullptr ? std::nullopt : std::optional(element->place);
    }

    const compiled::Element* find(const compiled::Map& map, const std::vector<compiled::MaskedField>& key) const
    {
        Bytes found;
        if (key.size() != map.sizes.size())
            throw std::logic_error("the key of " + map.name + " has other parts");
        for (std::size_t i = 0; i < key.size(); ++i) {
            const std::optional<Bytes> part = load(key[i]);
            if (!part)
                return nullptr;
            if (part->size() != map.sizes[i])
                throw std::logic_error("the key of " + map.name + " has other sizes");
            found.insert(found.end(), part->begin(), part->end());
        }
        const compiled::Element* match = nullptr;
        for (const compiled::Element& element : map.elements) {
            if (!isWithin(map, found, element))
                continue;
            if (match != nullptr)
                throw std::logic_error("two elements of " + map.name + " have a key in common");
            match = &element;
        }
        return match;
    }

    static bool isWithin(const compiled::Map& map, const Bytes& found, const compiled::Element& element)
    {
        const Bytes& last = map.intervals ? element.last : element.first;
        std::size_t at = 0;
        return std::ranges::all_of(map.sizes, [&](std::uint8_t size) {
            const auto part = [&](const Bytes& bytes) { return std::span(bytes).subspan(at, size); };
            const auto value = part(found);
            const bool within = !std::ranges::lexicographical_compare(value, part(element.first)) &&
                                !std::ranges::lexicographical_compare(part(last), value);
            at += size;
            return within;
        });
    }

    bool holds(const compiled::Condition& condition) const
    {
        using Kind = compiled::Condition::Kind;
        const std::optional<Bytes> found = load(condition.of);
        if (!found)
            return false;
        switch (condition.kind) {
        case Kind::Present:
            return true;
        case Kind::Equal:
            return *found == condition.value;
        case Kind::Differs:
            return *found != condition.value;
        case Kind::OneOf:
            break;
        }
        for (std::size_t at = 0; at < condition.value.size(); at += found->size()) {
            if (std::ranges::equal(*found, std::span(condition.value).subspan(at, found->size())))
                return true;
        }
        return false;
    }

    std::optional<Bytes> load(const compiled::MaskedField& of) const
    {
        Bytes name;
        if (of.field.header == compiled::Header::InPort || of.field.header == compiled::Header::OutPort) {
            const std::string& port = of.field.header == compiled::Header::InPort ? m_frame.in : m_frame.out;
            name.assign(port.begin(), port.end());
            name.resize(16);
        }
        const std::span<const std::uint8_t> all = of.field.header == compiled::Header::Link      ? m_link
                                                  : of.field.header == compiled::Header::Network ? m_frame.data
                                                                                                 : name;
        if (std::size_t{of.field.offset} + of.field.size > all.size())
            return std::nullopt;
        const auto bytes = all.subspan(of.field.offset, of.field.size);
        Bytes found(bytes.begin(), bytes.end());
        for (std::size_t i = 0; i < found.size(); ++i)
            found[i] &= of.mask.at(i);
        return found;
    }

    const compiled::Program& m_program;
    const RawFrame& m_frame;
    Bytes m_link;
    std::vector<Place> m_at; // the innermost chain last
    Outcome m_outcome;
};

} // namespace

Outcome walk(const ebtables::Table& table, const RawFrame& frame)
{
    return Walker(table, frame).walk();
}

Outcome run(const compiled::Program& program, const RawFrame& frame)
{
    return Machine(program, frame).run();
}

} // namespace test
