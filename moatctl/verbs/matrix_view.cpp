#include "moatctl/verbs/matrix_view.hpp"

#include "moatctl/bridge/interface.hpp"

#include <iterator>
#include <set>

namespace moatctl
{

namespace
{

// The verb that changes a table's rows.
const char* verbOf(TableId table)
{
    switch (table) {
    case TableId::Global:
        return "global";
    case TableId::InputPolicies:
        return "policy";
    case TableId::ForwardingPolicies:
        return "forward-policy";
    case TableId::Rules:
        return "rule";
    case TableId::Filters:
        return "filter";
    case TableId::FilterRules:
        return "filter-rule";
    }
    return "";
}

} // namespace

const char* nameOf(Passage passage)
{
    switch (passage) {
    case Passage::Open:
        return "open";
    case Passage::Closed:
        return "closed";
    case Passage::Partly:
        return "partly";
    case Passage::Unknown:
        break;
    }
    return "unknown";
}

const char* nameOf(Fate fate)
{
    return fate == Fate::Accept ? "ACCEPT" : fate == Fate::Drop ? "DROP" : "UNKNOWN";
}

std::string textOf(const ebtables::Chain& chain, const ebtables::TableRule* rule)
{
    if (rule == nullptr)
        return "policy " + chain.policy;
    return rule->rule ? ebtables::toText(*rule->rule) : rule->text;
}

std::string shortNameOf(const Scene& scene, ebtables::Origin origin)
{
    const Row* row = scene.walked().rowOf(origin);
    if (row == nullptr)
        return scene.nameOf(origin);
    return verbOf(row->table->id) + (row->table->hasIds() ? " " + std::to_string(row->id()) : "");
}

std::vector<std::string> portsOf(const Scene& scene, bool here, const MatrixWays& ways)
{
    std::set<std::string> ports;
    for (std::string& port : portsNamedIn(scene.walked().table))
        ports.insert(std::move(port));
    if (here) {
        for (std::string& port : bridgePortsHere())
            ports.insert(std::move(port));
    }
    for (const std::string& port : {ways.in, ways.out}) {
        if (!port.empty())
            ports.insert(port);
    }
    return {ports.begin(), ports.end()};
}

} // namespace moatctl
