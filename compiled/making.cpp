#include "compiled/making.hpp"

#include "compiled/form.hpp"
#include "compiled/pages.hpp"

#include <utility>

namespace compiled
{

std::size_t Making::addMap(Map map)
{
    Section& section = m_memory.section;
    section.maps.push_back(std::move(map));
    return section.firstMap + section.maps.size() - 1;
}

Verdict Making::verdictOf(const ebtables::Rule& rule)
{
    if (!rule.log)
        return {rule.target == "ACCEPT" ? Verdict::Kind::Accept
                : rule.target == "DROP" ? Verdict::Kind::Drop
                                        : Verdict::Kind::Return,
                {}};
    if (rule.log != m_lastLogging.log || rule.target != m_lastLogging.target) {
        m_lastLogging.log = rule.log;
        m_lastLogging.target = rule.target;
        // One for each text, level and end. Its name says what it is for, so that other rules do not change it.
        m_lastLogs = "log/" + rule.target + "/" + shortNameFor(ebtables::toText(m_lastLogging));
        m_with.logs[m_lastLogs] = {m_lastLogs, Hook::None, false, {{{}, PlainRule{m_lastLogging, ebtables::noOrigin}}}};
    }
    return {Verdict::Kind::Goto, m_lastLogs};
}

void Making::addLogs(const std::set<std::string>& logs)
{
    m_memory.section.logs.insert(logs.begin(), logs.end());
}

Step Making::written(const Known& rule, std::set<std::string>& targets) const
{
    const std::string& target = rule.item.rule.target;
    if (!ebtables::isStandardTarget(target) && m_with.table.find(target) != nullptr)
        targets.insert(target);
    return {{}, PlainRule{ruleWithout(m_decided, rule.item.rule), rule.item.origin}};
}

void Making::addWritten(const std::string& chain, KnownRules rules, std::vector<Step>& steps)
{
    for (const Page& page : pagesOf(m_with.inPages ? rules : KnownRules())) {
        const std::string name = chain + "/" + page.name;
        SectionMemory::Page& kept = m_memory.pages[name];
        if (!hasSerials(page.rules, kept.rules)) {
            kept = {serialsOf(page.rules), {}, {}};
            for (const Known* rule : page.rules)
                kept.steps.push_back(written(*rule, kept.targets));
        }
        m_memory.section.targets.insert(kept.targets.begin(), kept.targets.end());
        addChain({name, Hook::None, false, kept.steps});
        if (kept.targets.empty())
            m_memory.section.ends.push_back(name);
        steps.push_back({{}, Jump{name}});
        rules = rules.subspan(page.rules.size());
    }
    for (const Known* rule : rules)
        steps.push_back(written(*rule, m_memory.section.targets));
}

std::set<std::string> chainsOf(const Map& map)
{
    std::set<std::string> chains;
    std::string_view last;
    for (const Element& element : map.elements) {
        if (element.verdict.kind == Verdict::Kind::Goto && element.verdict.chain != last) {
            chains.insert(element.verdict.chain);
            last = element.verdict.chain;
        }
    }
    return chains;
}

} // namespace compiled
