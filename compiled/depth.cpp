#include "compiled/depth.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace compiled
{

namespace
{

class Depths
{
public:
    explicit Depths(const Program& program) : m_program(program)
    {
        for (const Chain& chain : program.chains)
            m_chains.emplace(chain.name, &chain);
    }

    std::size_t of(std::string_view name)
    {
        const auto chain = m_chains.find(name);
        if (chain == m_chains.end()) // ACCEPT and others
            return 0;
        const auto [place, isNew] = m_known.emplace(name, 1);
        if (!isNew)
            return place->second;
        std::size_t below = 0;
        for (const Step& step : chain->second->steps)
            below = std::max(below, behind(step));
        return m_known[name] = below + 1;
    }

private:
    std::size_t behind(const Step& step)
    {
        if (const auto* plain = std::get_if<PlainRule>(&step.action))
            return of(plain->rule.target);
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
        for (const Element& element : m_program.maps[map].elements) {
            if (element.verdict.kind != Verdict::Kind::Goto || element.verdict.chain == last)
                continue;
            last = element.verdict.chain;
            most = std::max(most, of(last));
        }
        return m_knownMaps[map] = most;
    }

    const Program& m_program;
    std::unordered_map<std::string_view, const Chain*> m_chains;
    std::unordered_map<std::string_view, std::size_t> m_known;
    std::unordered_map<std::size_t, std::size_t> m_knownMaps; // by number
};

} // namespace

std::size_t depthOf(const Program& program)
{
    Depths depths(program);
    std::size_t most = 0;
    for (const Chain& chain : program.chains) {
        if (chain.hook != Hook::None)
            most = std::max(most, depths.of(chain.name));
    }
    return most;
}

} // namespace compiled
