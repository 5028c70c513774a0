#include "moatctl/bridge/matrix.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <unordered_set>
#include <utility>

namespace moatctl
{

namespace
{

using Fits = PreparedTable::Fits;

// Addresses, ports and priorities; types and protocols of ordinary frames are what most frames have.
bool isNamedByRules(Property property)
{
    return static_cast<std::size_t>(property) < addressCount || property == Property::VlanPriority ||
           property == Property::SourcePort || property == Property::DestinationPort;
}

// What no rule names, as far as the question leaves the choice.
FramePoint ordinaryOf(FrameRegion region, const PreparedTable& table)
{
    const auto is = [](Property property, std::uint32_t number) {
        return FrameCondition{property, false, number, number, {}, {}};
    };
    constexpr Bits128 group{0, std::uint64_t{1} << 40U};
    for (const FrameCondition& preferred :
         {is(Property::Type, ethertype::ip4), is(Property::Encapsulated, ethertype::ip4),
          is(Property::Ip4Protocol, ipProtocol::tcp), is(Property::Ip6Protocol, ipProtocol::tcp),
          is(Property::Readable, wholePacket), FrameCondition{Property::Destination, false, 0, 0, {}, group}})
        region.narrow(preferred);
    for (const FrameCondition& condition : table.conditions()) {
        FrameCondition unnamed = condition;
        unnamed.negated = true;
        if (isNamedByRules(condition.property))
            region.narrow(unnamed);
    }
    return region.sample();
}

// Numbers ports that the same rules are about.
class Classes
{
public:
    std::size_t numberOf(Fits fits)
    {
        const auto [place, isNew] = m_numbers.emplace(std::move(fits), m_all.size());
        if (isNew)
            m_all.push_back(&place->first);
        return place->second;
    }
    const Fits& of(std::size_t number) const { return *m_all[number]; }

private:
    std::map<Fits, std::size_t> m_numbers;
    std::vector<const Fits*> m_all;
};

std::uint64_t countBoth(const Fits& in, const Fits& out)
{
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < in.size(); ++i)
        count += in[i] && out[i] ? 1 : 0;
    return count;
}

// Of the rules that are made of one row only the first; rules of no row each for itself.
void keepOneOfEachRow(std::vector<Decider>& deciders, const Applied& applied)
{
    std::unordered_set<const Row*> seen;
    std::erase_if(deciders, [&](const Decider& decider) {
        const Row* row = applied.rowOf(decider.origin());
        return row != nullptr && !seen.insert(row).second;
    });
}

Passage passageOf(const Answered& answered)
{
    const auto has = [&](Fate fate) {
        return answered.ordinary.fate == fate ||
               std::ranges::any_of(answered.otherwise, [&](const Decider& each) { return each.fate == fate; });
    };
    if (has(Fate::Accept) && has(Fate::Drop))
        return Passage::Partly;
    if (has(Fate::Unknown) || !answered.complete)
        return Passage::Unknown;
    return has(Fate::Accept) ? Passage::Open : Passage::Closed;
}

} // namespace

Matrix matrixOf(const Applied& applied, const FrameQuestion& question, std::vector<std::string> ports,
                const MatrixWays& ways)
{
    constexpr std::uint64_t wholeEffort = 200'000'000; // some seconds
    constexpr std::uint64_t leastEffort = 2'000'000;

    Matrix matrix;
    matrix.ports = std::move(ports);
    const std::vector<FrameRegion> regions = regionsOf(question);
    if (regions.empty())
        return matrix;
    PreparedTable table(applied.table);
    const FramePoint ordinary = ordinaryOf(regions.front(), table);
    matrix.ordinary = frameAt(ordinary);

    Classes ins;
    Classes outs;
    std::vector<std::size_t> inClass;
    std::vector<std::size_t> outClass;
    for (const std::string& port : matrix.ports) {
        inClass.push_back(ins.numberOf(table.cameIn(port)));
        outClass.push_back(outs.numberOf(table.leaves(port)));
    }
    const std::size_t deviceClass = outs.numberOf(table.leaves(""));

    // in, out, for the device: with the number of the answer
    std::map<std::tuple<std::size_t, std::size_t, bool>, std::size_t> answers;
    const auto answerOf = [&](std::size_t in, std::size_t out, bool forDevice) {
        return answers.emplace(std::tuple(in, out, forDevice), answers.size()).first->second;
    };
    for (std::size_t in = 0; in < matrix.ports.size(); ++in) {
        if (!ways.in.empty() && matrix.ports[in] != ways.in)
            continue;
        if (ways.out.empty())
            matrix.cells.push_back({in, std::nullopt, answerOf(inClass[in], deviceClass, true)});
        for (std::size_t out = 0; out < matrix.ports.size(); ++out) {
            if (out != in && (ways.out.empty() || matrix.ports[out] == ways.out))
                matrix.cells.push_back({in, out, answerOf(inClass[in], outClass[out], false)});
        }
    }

    // One look at all rules pays where ways have many of them in common.
    std::uint64_t apart = 0;
    for (const auto& [key, number] : answers) {
        const std::uint64_t rules = countBoth(ins.of(std::get<0>(key)), outs.of(std::get<1>(key)));
        apart += rules * rules;
    }
    const std::uint64_t all = table.ruleCount();
    if (apart > all * all)
        table.findReached(regions, wholeEffort);

    matrix.answers.resize(answers.size());
    const std::uint64_t effort = std::max(leastEffort, wholeEffort / std::max<std::size_t>(answers.size(), 1));
    for (const auto& [key, number] : answers) {
        const auto& [in, out, forDevice] = key;
        const Way way(table, ins.of(in), outs.of(out), forDevice);
        Answered& answered = matrix.answers[number];
        answered.ordinary = way.decide(ordinary);
        Way::Others others = way.decidersOtherThan(answered.ordinary.fate, regions, effort);
        answered.otherwise = std::move(others.deciders);
        answered.complete = others.complete;
        answered.passage = passageOf(answered);
        keepOneOfEachRow(answered.otherwise, applied);
    }
    return matrix;
}

std::vector<std::string> portsNamedIn(const ebtables::Table& table)
{
    std::set<std::string> names;
    for (const ebtables::Chain& chain : table.chains) {
        for (const ebtables::TableRule& rule : chain.rules) {
            for (const auto* match : {rule.rule ? &rule.rule->in : nullptr, rule.rule ? &rule.rule->out : nullptr}) {
                if (match != nullptr && *match && !(*match)->prefix && !(*match)->negated)
                    names.insert((*match)->name);
            }
        }
    }
    return {names.begin(), names.end()};
}

} // namespace moatctl
