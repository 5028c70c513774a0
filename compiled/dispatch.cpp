#include "compiled/dispatch.hpp"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace compiled
{

namespace
{

using ebtables::InterfaceMatch;
using Matches = std::optional<InterfaceMatch>;
using Places = std::vector<std::size_t>;

constexpr std::size_t fewRules = 4;
constexpr std::size_t mostCopies = 4; // of a rule, on average

bool namesOne(const Matches& match)
{
    return match && !match->prefix && !match->negated;
}

bool holds(const Matches& match, std::string_view port)
{
    return !match || (match->prefix ? port.starts_with(match->name) : port == match->name) != match->negated;
}

Places merged(const Places& one, const Places& other)
{
    Places all;
    all.reserve(one.size() + other.size());
    std::ranges::merge(one, other, std::back_inserter(all));
    return all;
}

class Dispatcher
{
public:
    explicit Dispatcher(std::span<const ebtables::Rule* const> rules)
        : m_rules(rules), m_room(mostCopies * rules.size())
    {
        for (std::size_t i = 0; i < rules.size(); ++i)
            sort(i);
    }

    Dispatched run()
    {
        if (m_rules.size() < fewRules || m_byIn.empty())
            return undivided();
        std::vector<PortClass> withOne;
        for (const auto& [in, own] : m_byIn) {
            const Places others = merged(own.others, m_general);
            for (const auto& [out, both] : own.byOut) {
                PortClass& here = m_result.classes.emplace_back(PortClass{std::string(in), std::string(out), {}});
                const auto isElsewhere = [&](std::size_t place) { return !holds(m_rules[place]->out, here.out); };
                if (!give(here, merged(both, without(others, here.in, isElsewhere))))
                    return undivided();
            }
            if (own.others.empty())
                continue;
            PortClass& here = withOne.emplace_back(PortClass{std::string(in), "", {}});
            const auto isElsewhere = [&own = own, this](std::size_t place) {
                return namesOne(m_rules[place]->out) && own.byOut.contains(m_rules[place]->out->name);
            };
            if (!give(here, without(others, here.in, isElsewhere)))
                return undivided();
        }
        const auto byNames = [](const PortClass& one, const PortClass& other) {
            return std::tie(one.in, one.out) < std::tie(other.in, other.out);
        };
        std::ranges::sort(m_result.classes, byNames);
        std::ranges::sort(withOne, byNames);
        std::ranges::move(withOne, std::back_inserter(m_result.classes));
        m_result.rest = std::move(m_general);
        return std::move(m_result);
    }

private:
    // The rules that name a port to come in by.
    struct OfIn {
        std::unordered_map<std::string_view, Places> byOut; // and one to leave by
        Places others;
    };

    void sort(std::size_t place)
    {
        const ebtables::Rule& rule = *m_rules[place];
        if (!namesOne(rule.in)) {
            m_general.push_back(place);
            return;
        }
        // Most are about the same ports as the one before.
        if (m_last == nullptr || m_lastIn != rule.in->name) {
            m_last = &m_byIn[rule.in->name];
            m_lastIn = rule.in->name;
            m_lastBoth = nullptr;
        }
        if (!namesOne(rule.out)) {
            m_last->others.push_back(place);
            return;
        }
        if (m_lastBoth == nullptr || m_lastOut != rule.out->name) {
            m_lastBoth = &m_last->byOut[rule.out->name];
            m_lastOut = rule.out->name;
        }
        m_lastBoth->push_back(place);
    }

    Places without(const Places& places, const std::string& in, const auto& isElsewhere) const
    {
        Places left;
        std::ranges::copy_if(places, std::back_inserter(left),
                             [&](std::size_t place) { return holds(m_rules[place]->in, in) && !isElsewhere(place); });
        return left;
    }

    // False when the rules become too many.
    bool give(PortClass& to, Places places)
    {
        const bool fits = places.size() <= m_room;
        m_room -= fits ? places.size() : 0;
        to.rules = std::move(places);
        return fits;
    }

    Dispatched undivided() const
    {
        Dispatched all;
        all.rest.resize(m_rules.size());
        std::iota(all.rest.begin(), all.rest.end(), std::size_t{0});
        return all;
    }

    std::span<const ebtables::Rule* const> m_rules;
    std::size_t m_room;
    std::unordered_map<std::string_view, OfIn> m_byIn;
    Places m_general;
    OfIn* m_last = nullptr;
    std::string_view m_lastIn;
    Places* m_lastBoth = nullptr; // of the last one's
    std::string_view m_lastOut;
    Dispatched m_result;
};

} // namespace

Dispatched dispatch(std::span<const ebtables::Rule* const> rules)
{
    return Dispatcher(rules).run();
}

} // namespace compiled
