// The compiled form of the bridge's rules: chains whose steps look many rules up at once. Plain values.
//
// It says what the kernel is to do in the kernel's own terms (bytes that are loaded and compared, maps of verdicts), so
// that writing it as messages decides nothing.
#pragma once

#include "compiled/list.hpp"
#include "compiled/places.hpp"
#include "ebtables/command.hpp"
#include "ebtables/table.hpp"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace compiled
{

using Bytes = std::vector<std::uint8_t>;

// Bytes that a frame has, or that are known about it: the names of ports are 16 bytes, filled up with zeros. `Link`
// counts from the destination address, with a tag always in its place; `Network` from behind the type field of a frame
// without a tag. A load that reaches past the end of the frame fails.
enum class Header : std::uint8_t { InPort, OutPort, Link, Network };

struct Field {
    Header header = Header::Link;
    std::uint8_t offset = 0;
    std::uint8_t size = 0;
    auto operator<=>(const Field&) const = default;
};

// A field whose bits outside the mask do not count. mask: as long as the field.
struct MaskedField {
    Field field;
    Bytes mask;
    auto operator<=>(const MaskedField&) const = default;
};

inline MaskedField whole(const Field& field)
{
    return {field, Bytes(field.size, 0xff)};
}

// What must hold before a step is taken; a load that fails never holds.
struct Condition {
    enum class Kind : std::uint8_t { Present, Equal, Differs, OneOf };

    Kind kind = Kind::Present;
    MaskedField of;
    Bytes value; // OneOf: several, one after the other
    auto operator<=>(const Condition&) const = default;
};

struct Verdict {
    enum class Kind : std::uint8_t { Accept, Drop, Return, Goto };

    Kind kind = Kind::Accept;
    std::string chain; // Goto
    auto operator<=>(const Verdict&) const = default;
};

// All rules of a row share its mark. An element counts the frames that it decides, as a rule does.
struct Element {
    Bytes first; // the parts of the key one beside the other, without gaps
    Bytes last;  // of each part, in a map of intervals; otherwise empty
    Verdict verdict;
    Place place = 0; // instead of a verdict, in a map of places
    ebtables::Origin origin = ebtables::noOrigin;
    bool operator==(const Element&) const = default;
};

// No two elements have a key in common.
struct Map {
    std::string name;
    std::vector<std::uint8_t> sizes; // of the key's parts, in bytes
    bool intervals = false;
    bool counts = false;  // each element for itself
    bool places = false;  // it is asked where in the list the rule with this key is
    bool numbers = false; // has numbers of verdicts (compiled/numbers.hpp); the map behind it has the verdicts
    List<Element> elements;
    bool operator==(const Map&) const = default;
};

// ---- steps

// A rule as it stands in the plain form. Its target may be a chain of the program.
struct PlainRule {
    ebtables::Rule rule;
    ebtables::Origin origin = ebtables::noOrigin;
    bool operator==(const PlainRule&) const = default;
};

// Goes on behind the step when the map has no such key.
struct LookUp {
    std::size_t map = 0; // in Program::maps
    std::vector<MaskedField> key;
    bool operator==(const LookUp&) const = default;
};

struct Jump {
    std::string chain;
    bool comesBack = true;
    bool operator==(const Jump&) const = default;
};

// Goes to the chain, for good, when a map of places has the key; with `than`, if the place is before the one that is
// found there.
struct Lead {
    LookUp place;
    std::optional<LookUp> than;
    std::string chain;
    bool operator==(const Lead&) const = default;
};

struct Step {
    std::vector<Condition> conditions; // none with a plain rule, which has its own
    std::variant<PlainRule, LookUp, Jump, Lead> action;
    bool operator==(const Step&) const = default;
};

// Calls visit(lookUp) for each that the step has.
void forEachLookUp(auto& step, const auto& visit)
{
    if (auto* lookUp = std::get_if<LookUp>(&step.action))
        visit(*lookUp);
    if (auto* lead = std::get_if<Lead>(&step.action)) {
        visit(lead->place);
        if (lead->than)
            visit(*lead->than);
    }
}

enum class Hook : std::uint8_t { None, Input, Forward };

struct Chain {
    std::string name;
    Hook hook = Hook::None;
    bool dropsByPolicy = false; // of one with a hook; the end of another leads back to where it was jumped to from
    List<Step> steps;
    bool operator==(const Chain&) const = default;
};

// A copy costs little: the lists of steps and elements are shared.
struct Program {
    std::vector<Chain> chains; // those with hooks first
    std::vector<Map> maps;

    const Chain* find(const std::string& chain) const;
};

} // namespace compiled
