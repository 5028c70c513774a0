// The rules are the handler's one table that gets long. What is done for each of its rows is here, to be compiled for
// speed; the other readers are in moatkeeper.cpp.
#include "handler/moatkeeper.hpp"

#include "handler/passed_over.hpp"
#include "handler/priority_order.hpp"
#include "handler/reading.hpp"
#include "handler/rows_from_values.hpp"

#include <optional>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

bool CompareRulePrio(const EtherRule& a, const EtherRule& b)
{
    return comesBeforeAsRule(a.rulePrio(), b.rulePrio());
}

} // namespace

int moatkeeper::ReadMoatKeeperRuleset(cfg::IConfigReader& source)
{
    LogTrace(210, "ReadMoatKeeperRuleset");
    if (g_debugMode)
        LogInfo(216, VAStr("%s: will read all MoatKeeperRules from Database", "ReadMoatKeeperRuleset"));

    std::list<EtherRule> previous = std::exchange(m_rules, {});

    readRows(source, rulesetTable, [this](const RowRead& values) {
        const RuleRow rule = ruleRow(values);
        const std::optional<Unusable> why = whyPassedOver(rule);
        if (why == Unusable::Disabled) {
            if (g_debugMode)
                LogInfo(263,
                        VAStr("%s: ignore Rule Id %d because rule is disabled.", "ReadMoatKeeperRuleset", rule.id));
        } else if (why == Unusable::NoInInterface) {
            LogWarning(252, VAStr("%s: ignore Rule Id %d because no InputInterface is specified.",
                                  "ReadMoatKeeperRuleset", rule.id));
        } else if (why == Unusable::PriorityZero) {
            LogWarning(256, VAStr("%s: ignore Rule Id %d because of invalid prio", "ReadMoatKeeperRuleset", rule.id));
        } else {
            m_rules.emplace_back(rule.id, rule.rulePrio, rule.inInterface, rule.outInterface, rule.dstMAC, rule.srcMAC,
                                 rule.vlanId, rule.ethertype, rule.ipSrcAddr, rule.ipDstAddr, rule.ipProto, rule.ipPort,
                                 rule.target, rule.enableLogging);
        }
    });

    SortRules();
    const bool changed = RecordsDiffer(m_rules, std::move(previous), "Moatkeeper Rule", 278, "Moatkeeper Rule", 281);
    if (g_debugMode)
        LogInfo(289, VAStr("%s: will return %d", "ReadMoatKeeperRuleset", changed));
    m_rulesChanged = changed;
    return changed;
}

void moatkeeper::SortRules()
{
    if (g_debugMode)
        LogInfo(658, VAStr("%s: will sort rules acording their prio!", "SortRules"));

    m_rules.sort(CompareRulePrio);

    if (!g_debugMode)
        return;
    if (m_rules.empty()) {
        LogInfo(671, VAStr("%s:no MoatKeeperRules found", "SortRules"));
        return;
    }
    LogInfo(664, VAStr("%s: sorted rules according the following priority:", "SortRules"));
    for (const EtherRule& rule : m_rules)
        LogInfo(668, VAStr("%s: Rule %d", "SortRules", rule.id()));
}

} // namespace zol::moatkeeper
