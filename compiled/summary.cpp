#include "compiled/summary.hpp"

#include "compiled/describe.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <string_view>

namespace compiled
{

namespace
{

bool isPort(const MaskedField& part)
{
    return part.field.header == Header::InPort || part.field.header == Header::OutPort;
}

std::string portAt(const Bytes& key, std::size_t part)
{
    constexpr std::size_t size = 16;
    std::string name;
    for (std::size_t i = part * size; i < std::min(key.size(), (part + 1) * size) && key[i] != 0; ++i)
        name += static_cast<char>(key[i]);
    return name;
}

class Summariser
{
public:
    explicit Summariser(const Program& program) : m_program(program)
    {
        for (const Chain& chain : program.chains)
            m_chains.emplace(chain.name, &chain);
    }

    std::vector<ClassSummary> run()
    {
        for (const Chain& chain : m_program.chains) {
            for (const Step& step : chain.steps) {
                if (const LookUp* ports = dispatchOf(step))
                    addClasses(chain, *ports, static_cast<std::size_t>(&step - chain.steps.data()) + 1);
            }
            if (chain.hook != Hook::None || isDispatched(chain))
                addRest(chain);
        }
        return std::move(m_result);
    }

private:
    // The step that finds a frame's ports.
    const LookUp* dispatchOf(const Step& step) const
    {
        const auto* lookUp = std::get_if<LookUp>(&step.action);
        const bool isDispatch = lookUp != nullptr && step.conditions.empty() && !m_program.maps[lookUp->map].counts &&
                                std::ranges::all_of(lookUp->key, isPort);
        return isDispatch ? lookUp : nullptr;
    }

    bool isDispatched(const Chain& chain) const
    {
        return std::ranges::any_of(chain.steps, [this](const Step& step) { return dispatchOf(step) != nullptr; });
    }

    void addClasses(const Chain& chain, const LookUp& ports, std::size_t steps)
    {
        for (const Element& element : m_program.maps[ports.map].elements) {
            const auto target = m_chains.find(element.verdict.chain);
            if (target == m_chains.end())
                continue;
            ClassSummary& summary = m_result.emplace_back();
            summary.chain = chain.name;
            summary.in = portAt(element.first, 0);
            summary.out = portAt(element.first, 1);
            summary.steps = steps + mostSteps(m_program, *target->second);
            begin();
            count(*target->second, summary);
        }
    }

    void addRest(const Chain& chain)
    {
        ClassSummary summary;
        summary.chain = chain.name;
        summary.steps = chain.steps.size();
        begin();
        m_seen.insert(chain.name);
        for (const Step& step : chain.steps) {
            if (dispatchOf(step) == nullptr)
                count(step, summary);
        }
        for (const std::string& passed : m_seen) {
            if (passed != chain.name)
                summary.steps += m_chains.at(passed)->steps.size();
        }
        m_result.push_back(std::move(summary));
    }

    void begin()
    {
        m_seen.clear();
        m_counted.clear();
    }

    void count(const Chain& chain, ClassSummary& summary)
    {
        if (!m_seen.insert(chain.name).second)
            return;
        for (const Step& step : chain.steps)
            count(step, summary);
    }

    void count(const std::string& chain, ClassSummary& summary)
    {
        if (const auto found = m_chains.find(chain); found != m_chains.end())
            count(*found->second, summary);
    }

    void count(const Step& step, ClassSummary& summary)
    {
        if (const auto* plain = std::get_if<PlainRule>(&step.action)) {
            ++summary.rules;
            count(plain->rule.target, summary);
        }
        if (const auto* jump = std::get_if<Jump>(&step.action))
            count(jump->chain, summary);
        if (const auto* lead = std::get_if<Lead>(&step.action))
            count(lead->chain, summary);
        forEachLookUp(step, [&](const LookUp& lookUp) {
            if (!m_counted.insert(lookUp.map).second)
                return;
            const Map& map = m_program.maps[lookUp.map];
            ++summary.maps;
            summary.elements += map.elements.size();
            std::string_view last; // most lead to the same few
            for (const Element& element : map.elements) {
                if (element.verdict.chain != last)
                    count(element.verdict.chain, summary);
                last = element.verdict.chain;
            }
        });
    }

    const Program& m_program;
    std::map<std::string, const Chain*, std::less<>> m_chains;
    std::set<std::string> m_seen;    // chains of the class
    std::set<std::size_t> m_counted; // maps of the class
    std::vector<ClassSummary> m_result;
};

} // namespace

std::vector<ClassSummary> summaryOf(const Program& program)
{
    return Summariser(program).run();
}

} // namespace compiled
