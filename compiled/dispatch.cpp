#include "compiled/dispatch.hpp"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace compiled
{

namespace
{

using ebtables::InterfaceMatch;
using Matches = std::optional<InterfaceMatch>;

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

struct ByPorts {
    std::set<std::pair<std::string, std::string>> pairs; // named together
    std::set<std::string> ins;                           // named with no, or more than one, port to leave by
};

ByPorts portsOf(const std::vector<Item>& items)
{
    ByPorts ports;
    for (const Item& item : items) {
        if (!namesOne(item.rule.in))
            continue;
        if (namesOne(item.rule.out))
            ports.pairs.emplace(item.rule.in->name, item.rule.out->name);
        else
            ports.ins.insert(item.rule.in->name);
    }
    return ports;
}

// Without all copies: the rules of a class, and where each of them is in the list.
class Sorter
{
public:
    explicit Sorter(const std::vector<Item>& items) : m_ports(portsOf(items))
    {
        for (std::size_t i = 0; i < items.size(); ++i) {
            const ebtables::Rule& rule = items[i].rule;
            if (namesOne(rule.in))
                m_byIn[rule.in->name].push_back(i);
            else
                m_general.push_back(i);
        }
    }

    const ByPorts& ports() const { return m_ports; }
    const std::vector<std::size_t>& general() const { return m_general; }

    // Those that name the port and those that name none or several, in their order.
    std::vector<std::size_t> about(const std::string& in) const
    {
        const std::vector<std::size_t>& own = m_byIn.at(in);
        std::vector<std::size_t> all;
        all.reserve(own.size() + m_general.size());
        std::merge(own.begin(), own.end(), m_general.begin(), m_general.end(), std::back_inserter(all));
        return all;
    }

private:
    ByPorts m_ports;
    std::map<std::string, std::vector<std::size_t>> m_byIn;
    std::vector<std::size_t> m_general;
};

} // namespace

Dispatched dispatch(std::vector<Item> items)
{
    Dispatched result;
    const Sorter sorter(items);
    const ByPorts& ports = sorter.ports();
    std::size_t room = mostCopies * items.size();
    const auto give = [&](PortClass& to, std::size_t index, bool keepOut) {
        Item& copy = to.items.emplace_back(items[index]);
        copy.rule.in.reset();
        if (!keepOut)
            copy.rule.out.reset();
        return room-- != 0;
    };
    bool pays = items.size() >= fewRules && !(ports.pairs.empty() && ports.ins.empty());
    for (auto pair = ports.pairs.begin(); pays && pair != ports.pairs.end(); ++pair) {
        PortClass& here = result.classes.emplace_back(PortClass{pair->first, pair->second, {}});
        for (const std::size_t index : sorter.about(here.in)) {
            const ebtables::Rule& rule = items[index].rule;
            if (holds(rule.in, here.in) && holds(rule.out, here.out))
                pays = pays && give(here, index, false);
        }
    }
    for (auto in = ports.ins.begin(); pays && in != ports.ins.end(); ++in) {
        PortClass& here = result.classes.emplace_back(PortClass{*in, "", {}});
        for (const std::size_t index : sorter.about(*in)) {
            const ebtables::Rule& rule = items[index].rule;
            const bool elsewhere = namesOne(rule.out) && ports.pairs.contains({*in, rule.out->name});
            if (holds(rule.in, *in) && !elsewhere)
                pays = pays && give(here, index, true);
        }
    }
    if (!pays)
        return {{}, std::move(items)};
    for (const std::size_t index : sorter.general())
        result.rest.push_back(std::move(items[index]));
    return result;
}

} // namespace compiled
