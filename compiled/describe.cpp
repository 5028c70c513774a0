#include "compiled/describe.hpp"

#include "compiled/key.hpp"

#include <algorithm>
#include <map>
#include <span>

namespace compiled
{

namespace
{

std::string hex(std::span<const std::uint8_t> bytes)
{
    std::string text = "0x";
    for (const std::uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte >> 4U];
        text += "0123456789abcdef"[byte & 15U];
    }
    return text;
}

std::string nameOf(const Field& field)
{
    for (auto part = Part::InPort; part <= Part::Ip6DestinationPort;
         part = static_cast<Part>(static_cast<int>(part) + 1)) {
        if (fieldOf(part) == field)
            return compiled::nameOf(part);
    }
    return std::string(field.header == Header::Link ? "link" : "network") + "[" + std::to_string(field.offset) + "+" +
           std::to_string(field.size) + "]";
}

std::string nameOf(const MaskedField& of)
{
    const bool whole = std::ranges::all_of(of.mask, [](std::uint8_t byte) { return byte == 0xff; });
    return nameOf(of.field) + (whole ? "" : "&" + hex(of.mask));
}

std::string textOf(const Condition& condition)
{
    const std::string name = nameOf(condition.of);
    switch (condition.kind) {
    case Condition::Kind::Present:
        return "has " + name;
    case Condition::Kind::Equal:
        return name + " " + hex(condition.value);
    case Condition::Kind::Differs:
        return name + " not " + hex(condition.value);
    case Condition::Kind::OneOf:
        break;
    }
    return name + " in " + hex(condition.value);
}

std::string textOf(const Program& program, const LookUp& lookUp)
{
    const Map& map = program.maps[lookUp.map];
    std::string text;
    for (const MaskedField& part : lookUp.key)
        text.append(text.empty() ? "" : ".").append(nameOf(part));
    return text + " in " + map.name + " (" + std::to_string(map.elements.size()) +
           (map.intervals ? " intervals)" : ")");
}

std::string textOf(const Program& program, const Step& step)
{
    std::string text;
    for (const Condition& condition : step.conditions)
        text.append(text.empty() ? "" : ", ").append(textOf(condition));
    text.append(text.empty() ? "" : ": ");
    if (const auto* plain = std::get_if<PlainRule>(&step.action))
        return text + ebtables::toText(plain->rule);
    if (const auto* jump = std::get_if<Jump>(&step.action))
        return text + (jump->comesBack ? "jump to " : "go to ") + jump->chain;
    if (const auto* lead = std::get_if<Lead>(&step.action))
        return text + "place of " + textOf(program, lead->place) +
               (lead->than ? ", before that of " + textOf(program, *lead->than) : "") + ": go to " + lead->chain;
    return text + "look up " + textOf(program, std::get<LookUp>(step.action));
}

class Counter
{
public:
    explicit Counter(const Program& program) : m_program(program)
    {
        for (const Chain& chain : program.chains)
            m_chains.emplace(chain.name, &chain);
    }

    // A frame takes every step of a chain, and what lies behind each jump; of what a map leads to, one.
    std::size_t of(const Chain& chain)
    {
        const auto [place, isNew] = m_known.emplace(chain.name, 0); // 0 for a chain that leads to itself
        if (!isNew)
            return place->second;
        std::size_t passed = 0;
        std::size_t most = 0;
        for (const Step& step : chain.steps) {
            ++passed;
            if (const auto* plain = std::get_if<PlainRule>(&step.action))
                passed += of(plain->rule.target);
            if (const auto* jump = std::get_if<Jump>(&step.action)) {
                if (jump->comesBack)
                    passed += of(jump->chain);
                else
                    most = std::max(most, passed + of(jump->chain));
            }
            if (const auto* lead = std::get_if<Lead>(&step.action))
                most = std::max(most, passed + of(lead->chain));
            if (const auto* lookUp = std::get_if<LookUp>(&step.action)) {
                for (const Element& element : m_program.maps[lookUp->map].elements)
                    most = std::max(most, passed + of(element.verdict.chain));
            }
        }
        return m_known[chain.name] = std::max(most, passed);
    }

private:
    std::size_t of(const std::string& name)
    {
        const auto found = m_chains.find(name);
        return found == m_chains.end() ? 0 : of(*found->second);
    }

    const Program& m_program;
    std::map<std::string, const Chain*> m_chains;
    std::map<std::string, std::size_t> m_known;
};

} // namespace

std::string describe(const Program& program)
{
    std::string text;
    for (const Chain& chain : program.chains) {
        text += chain.name;
        text += chain.hook == Hook::None ? "\n" : chain.dropsByPolicy ? " (policy DROP)\n" : " (policy ACCEPT)\n";
        for (const Step& step : chain.steps)
            text += "  " + textOf(program, step) + "\n";
    }
    return text;
}

std::string textOf(const Element& element)
{
    const char* const verdicts[] = {"ACCEPT", "DROP", "RETURN", "go to "};
    std::string text = hex(element.first);
    if (!element.last.empty() && element.last != element.first)
        text += " to " + hex(element.last);
    return text + ": " + verdicts[static_cast<std::size_t>(element.verdict.kind)] + element.verdict.chain;
}

std::size_t mostSteps(const Program& program, const Chain& chain)
{
    return Counter(program).of(chain);
}

} // namespace compiled
