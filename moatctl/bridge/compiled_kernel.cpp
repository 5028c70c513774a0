#include "moatctl/bridge/compiled_kernel.hpp"

#include "compiled/compile.hpp"
#include "compiled/describe.hpp"
#include "compiled/mark.hpp"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace moatctl
{

namespace
{

using Marks = std::unordered_set<ebtables::Origin>;

Marks marksOf(const compiled::Program& program)
{
    Marks marks;
    for (const compiled::Chain& chain : program.chains) {
        for (const compiled::Step& step : chain.steps) {
            if (const auto* plain = std::get_if<compiled::PlainRule>(&step.action))
                marks.insert(plain->origin);
        }
    }
    for (const compiled::Map& map : program.maps) {
        for (const compiled::Element& element : map.elements)
            marks.insert(element.origin);
    }
    return marks;
}

bool takesEveryFrame(const ebtables::Rule& rule)
{
    ebtables::Rule bare;
    bare.target = rule.target;
    return rule == bare && !ebtables::isStandardTarget(rule.target);
}

class Decompiler
{
public:
    Decompiler(const nftables::HeldProgram& held, ebtables::Table& wanted)
        : m_held(held), m_counted(nftables::countedBy(held)), m_wanted(wanted)
    {
        compiled::mark(wanted);
        if (const auto program = compiled::compile(wanted, &held.program))
            m_needed = marksOf(*program);
        m_there = marksOf(held.program);
    }

    ebtables::Table table()
    {
        ebtables::Table table;
        for (const ebtables::Chain& chain : m_wanted.chains) {
            if (chain.name != "OUTPUT")
                table.chains.push_back(chainOf(chain));
        }
        addStrangers(table);
        return table;
    }

private:
    // What the compiler has left out is there as much as it is needed.
    bool isThere(ebtables::Origin mark) const { return m_there.contains(mark) || !m_needed.contains(mark); }

    ebtables::Chain chainOf(const ebtables::Chain& wanted)
    {
        ebtables::Chain chain{wanted.name, wanted.policy, {}, ebtables::noOrigin};
        if (const compiled::Chain* hooked = m_held.program.find(wanted.name); ebtables::isBuiltIn(wanted.name))
            chain.policy = hooked != nullptr && hooked->dropsByPolicy ? "DROP" : "ACCEPT";
        else if (!isThere(wanted.policyOrigin))
            chain.policy = "RETURN";
        m_known.insert(wanted.policyOrigin);
        for (const ebtables::TableRule& rule : wanted.rules) {
            m_known.insert(rule.origin);
            if (!isThere(rule.origin) || !rule.rule)
                continue;
            ebtables::TableRule& there = chain.rules.emplace_back();
            there.text = ebtables::toText(*rule.rule);
            there.rule = rule.rule;
            if (takesEveryFrame(*rule.rule) && !m_there.contains(rule.origin))
                continue; // nobody counts at such a jump
            const auto counted = m_counted.find(rule.origin);
            there.counters = counted == m_counted.end()
                                 ? ebtables::Counters()
                                 : ebtables::Counters{counted->second.packets, counted->second.bytes};
        }
        return chain;
    }

    // What no rule of the configuration has become.
    void addStrangers(ebtables::Table& table)
    {
        const auto isStrange = [&](ebtables::Origin mark) {
            return mark != ebtables::noOrigin && m_known.insert(mark).second;
        };
        for (const compiled::Chain& chain : m_held.program.chains) {
            for (const compiled::Step& step : chain.steps) {
                const auto* plain = std::get_if<compiled::PlainRule>(&step.action);
                if (plain != nullptr && isStrange(plain->origin))
                    add(table, chain.name, ebtables::toText(plain->rule), plain->origin);
            }
        }
        for (const compiled::Map& map : m_held.program.maps) {
            for (const compiled::Element& element : map.elements) {
                if (isStrange(element.origin))
                    add(table, map.name, compiled::textOf(element), element.origin);
            }
        }
        if (!m_held.isWhole)
            add(table, nftables::compiledTable, "something that moatkeeper does not put there", ebtables::noOrigin);
    }

    void add(ebtables::Table& table, const std::string& chain, std::string text, ebtables::Origin mark)
    {
        if (table.find(chain) == nullptr)
            table.chains.push_back({chain, "RETURN", {}, ebtables::noOrigin});
        ebtables::TableRule& rule = table.find(chain)->rules.emplace_back();
        rule.text = std::move(text);
        if (const auto counted = m_counted.find(mark); counted != m_counted.end())
            rule.counters = ebtables::Counters{counted->second.packets, counted->second.bytes};
    }

    const nftables::HeldProgram& m_held;
    const nftables::CountersByMark m_counted;
    ebtables::Table& m_wanted;
    Marks m_needed; // what the configuration makes has them
    Marks m_there;
    Marks m_known; // seen in the configuration, or told
};

} // namespace

ebtables::Table asRules(const ebtables::Table& plain, const nftables::HeldProgram& held, ebtables::Table wanted)
{
    ebtables::Table table = Decompiler(held, wanted).table();
    for (const ebtables::Chain& chain : plain.chains) {
        if (ebtables::Chain* known = table.find(chain.name))
            known->rules.insert(known->rules.end(), chain.rules.begin(), chain.rules.end());
        else
            table.chains.push_back(chain);
    }
    return table;
}

std::optional<nftables::HeldProgram> readCompiled(std::string& reason)
{
    constexpr int mostReads = 5; // while it is changed
    nftables::HeldProgram held;
    nftables::Connection connection;
    bool settled = false;
    for (int i = 0; i < mostReads && !settled; ++i) {
        settled = true;
        const nftables::Result result = nftables::readProgram(connection, nftables::compiledTable, held, settled);
        if (result.answer != nftables::Answer::Done) {
            reason = result.reason;
            return std::nullopt;
        }
    }
    return held;
}

} // namespace moatctl
