#include "compiled/depth.hpp"

#include <algorithm>
#include <limits>
#include <string_view>
#include <unordered_map>

namespace compiled
{

namespace
{

class Depths
{
public:
    Depths(const Program& program, std::span<const std::string> ends) : m_program(program)
    {
        m_chains.reserve(program.chains.size());
        for (const Chain& chain : program.chains)
            m_chains.emplace(chain.name, Known{&chain, unknown});
        for (const std::string& end : ends)
            m_chains.at(end).depth = 1;
    }

    std::size_t of(std::string_view name)
    {
        const auto found = m_chains.find(name);
        if (found == m_chains.end())
            return 0;
        Known& known = found->second;
        if (known.depth != unknown)
            return known.depth;
        known.depth = 1;
        std::size_t below = 0;
        for (const Step& step : known.chain->steps)
            below = std::max(below, behind(step));
        return known.depth = below + 1;
    }

private:
    std::size_t behind(const Step& step)
    {
        if (const auto* plain = std::get_if<PlainRule>(&step.action))
            return ebtables::isStandardTarget(plain->rule.target) ? 0 : of(plain->rule.target);
        if (const auto* jump = std::get_if<Jump>(&step.action))
            return of(jump->chain);
        if (const auto* lead = std::get_if<Lead>(&step.action))
            return of(lead->chain);
        return behind(std::get<LookUp>(step.action).map);
    }

    std::size_t behind(std::size_t map)
    {
        const auto [place, isNew] = m_knownMaps.emplace(map, 0);
        if (!isNew)
            return place->second;
        std::size_t most = 0;
        std::string_view last; // most lead to the same few
        const std::size_t verdicts = m_program.maps[map].numbers ? map + 1 : map;
        for (const Element& element : m_program.maps[verdicts].elements) {
            if (element.verdict.kind != Verdict::Kind::Goto || element.verdict.chain == last)
                continue;
            last = element.verdict.chain;
            most = std::max(most, of(last));
        }
        return m_knownMaps[map] = most;
    }

    static constexpr std::size_t unknown = std::numeric_limits<std::size_t>::max();
    struct Known {
        const Chain* chain;
        std::size_t depth;
    };

    const Program& m_program;
    std::unordered_map<std::string_view, Known> m_chains;
    std::unordered_map<std::size_t, std::size_t> m_knownMaps; // by number
};

} // namespace

std::size_t depthOf(const Program& program, std::span<const std::string> ends)
{
    Depths depths(program, ends);
    std::size_t most = 0;
    for (const Chain& chain : program.chains) {
        if (chain.hook != Hook::None)
            most = std::max(most, depths.of(chain.name));
    }
    return most;
}

} // namespace compiled
