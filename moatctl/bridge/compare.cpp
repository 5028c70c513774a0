#include "moatctl/bridge/compare.hpp"

#include <algorithm>
#include <map>
#include <queue>

namespace moatctl
{

namespace
{

// The rules of a chain on both sides; either may be missing as a whole.
void compareRules(const ebtables::Chain* wanted, const ebtables::Chain* held, std::vector<Entry>& entries)
{
    // Equal rules find each other in their order.
    std::map<std::string, std::queue<std::size_t>> unmatched;
    for (std::size_t i = 0; wanted != nullptr && i < wanted->rules.size(); ++i)
        unmatched[ebtables::toText(*wanted->rules[i].rule)].push(i);

    std::vector<bool> found(wanted != nullptr ? wanted->rules.size() : 0);
    std::size_t next = 0; // place in the configuration that is not passed yet
    for (std::size_t i = 0; held != nullptr && i < held->rules.size(); ++i) {
        const ebtables::TableRule& rule = held->rules[i];
        Entry entry{EntryState::Extra, held->name, i + 1, ebtables::noOrigin, rule.text, rule.counters};
        const auto same = rule.rule ? unmatched.find(ebtables::toText(*rule.rule)) : unmatched.end();
        if (same != unmatched.end() && !same->second.empty()) {
            const std::size_t place = same->second.front();
            same->second.pop();
            found[place] = true;
            entry.origin = wanted->rules[place].origin;
            entry.state = place < next ? EntryState::Different : EntryState::Same;
            next = std::max(next, place + 1);
        }
        entries.push_back(std::move(entry));
    }
    for (std::size_t i = 0; wanted != nullptr && i < found.size(); ++i) {
        if (!found[i])
            entries.push_back({EntryState::Missing,
                               wanted->name,
                               i + 1,
                               wanted->rules[i].origin,
                               ebtables::toText(*wanted->rules[i].rule),
                               {}});
    }
}

} // namespace

std::vector<Entry> compare(const ebtables::Table& table, const ebtables::Table& kernel)
{
    std::vector<Entry> entries;
    for (const ebtables::Chain& wanted : table.chains) {
        if (wanted.name == "OUTPUT")
            continue;
        const ebtables::Chain* held = kernel.find(wanted.name);
        const EntryState state = held == nullptr                 ? EntryState::Missing
                                 : held->policy == wanted.policy ? EntryState::Same
                                                                 : EntryState::Different;
        std::string text = "policy " + (held != nullptr ? held->policy : wanted.policy);
        if (state == EntryState::Different)
            text += ", expected " + wanted.policy;
        entries.push_back({state, wanted.name, 0, wanted.policyOrigin, std::move(text), {}});
        compareRules(&wanted, held, entries);
    }
    for (const ebtables::Chain& held : kernel.chains) {
        if (held.name == "OUTPUT" || table.find(held.name) != nullptr)
            continue;
        entries.push_back({EntryState::Extra, held.name, 0, ebtables::noOrigin, "policy " + held.policy, {}});
        compareRules(nullptr, &held, entries);
    }
    return entries;
}

} // namespace moatctl
