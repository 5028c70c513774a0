#include "compiled/numbers.hpp"

#include "compiled/hash.hpp"

#include <set>
#include <utility>
#include <vector>

namespace compiled
{

namespace
{

constexpr std::uint8_t size = 8;

} // namespace

Bytes numberOf(const Verdict& verdict)
{
    const std::uint64_t number =
        verdict.kind == Verdict::Kind::Goto ? hashOf(verdict.chain) : static_cast<std::uint64_t>(verdict.kind);
    Bytes bytes;
    for (unsigned shift = 0; shift < 8U * size; shift += 8)
        bytes.push_back(static_cast<std::uint8_t>(number >> shift));
    return bytes;
}

std::string nameOfMeanings(const std::string& map)
{
    return map + "/verdicts";
}

Map meaningsOf(const Map& map)
{
    std::set<std::string> chains;
    for (const Element& element : map.elements) {
        if (element.verdict.kind == Verdict::Kind::Goto)
            chains.insert(element.verdict.chain);
    }
    std::vector<Element> elements;
    const auto add = [&](Verdict verdict) {
        Element element;
        element.first = numberOf(verdict);
        element.verdict = std::move(verdict);
        elements.push_back(std::move(element));
    };
    for (const auto kind : {Verdict::Kind::Accept, Verdict::Kind::Drop, Verdict::Kind::Return})
        add({kind, {}});
    for (const std::string& chain : chains)
        add({Verdict::Kind::Goto, chain});
    Map meanings;
    meanings.name = nameOfMeanings(map.name);
    meanings.sizes = {size};
    meanings.elements = std::move(elements);
    return meanings;
}

} // namespace compiled
