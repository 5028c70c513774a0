#include "records/filters.hpp"

#include "platform/action_queue.hpp"
#include "records/row_lines.hpp"

#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "filters";

// The last word on a filter or a rule that has no lines.
void logIgnored(ZOL_Sysloglevel_Module logModule, int line, std::int32_t id)
{
    ZOL_Sysloglevel_warning(
        logModule, label, line,
        VAStr("%s: Filter ID %ld is invalid and will be ignored", "AssembleSystemCalls", static_cast<long>(id)));
}

} // namespace

BridgeFilter::BridgeFilter(std::int32_t id, std::string_view mode, std::string_view inInterface,
                           std::string_view outInterface, std::string_view matchCriteria, std::int32_t prio)
    : m_id(id),
      m_outInterface(outInterface),
      m_inInterface(inInterface),
      m_matchCriteria(matchCriteria),
      m_mode(mode),
      m_prio(prio),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void BridgeFilter::AssembleSystemCalls()
{
    FilterLines lines = linesOf(FilterRow{.id = m_id,
                                          .prio = m_prio,
                                          .inInterface = m_inInterface,
                                          .outInterface = m_outInterface,
                                          .matchCriteria = m_matchCriteria,
                                          .mode = m_mode});
    m_createChainCommand = std::move(lines.createChainCommand);
    m_insertJumpsCommand = std::move(lines.insertJumpsCommand);
    m_flushChainCommand = std::move(lines.flushChainCommand);
    m_deleteJumpsCommand = std::move(lines.deleteJumpsCommand);
    m_chainName = std::move(lines.chainName);
    m_valid = lines.reasons.empty();

    for (const Unusable reason : lines.reasons) {
        if (reason == Unusable::InvalidMode)
            ZOL_Sysloglevel_warning(m_logModule, label, 95,
                                    VAStr("%s: Filter ID %ld has invalid mode: %s", "AssembleSystemCalls",
                                          static_cast<long>(m_id), m_mode.c_str()));
    }
    if (!m_valid)
        logIgnored(m_logModule, 136, m_id);
}

int BridgeFilter::ApplySetUpCommands(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_createChainCommand);
    queue->addCommand(m_insertJumpsCommand);
    return queue->process();
}

int BridgeFilter::ApplyTearDownCommands(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_deleteJumpsCommand);
    queue->addCommand(m_flushChainCommand);
    return queue->process();
}

bool BridgeFilter::operator!=(const BridgeFilter& other) const
{
    const auto comparedValues = [](const BridgeFilter& filter) {
        return std::tie(filter.m_id, filter.m_prio, filter.m_outInterface, filter.m_inInterface, filter.m_mode);
    };
    return comparedValues(*this) != comparedValues(other);
}

BridgeFilterRule::BridgeFilterRule(std::int32_t id, std::string_view mode, std::string_view chainName,
                                   std::string_view matchCriteria, std::string_view filterMatch)
    : m_id(id),
      m_mode(mode),
      m_chainName(chainName),
      m_matchCriteria(matchCriteria),
      m_filterMatch(filterMatch),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void BridgeFilterRule::AssembleSystemCalls()
{
    RowLines lines = linesOf(JoinedFilterRule{
        .mode = m_mode, .chainName = m_chainName, .matchCriteria = m_matchCriteria, .filterMatch = m_filterMatch});
    m_addCommand = std::move(lines.addCommand);
    m_deleteCommand = std::move(lines.deleteCommand);

    // An unknown mode has no message of its own.
    for (const Unusable reason : lines.reasons) {
        if (reason == Unusable::InvalidVlanMatch)
            ZOL_Sysloglevel_warning(m_logModule, label, 233,
                                    VAStr("%s: Filter rule ID %ld has invalid VLAN ID criteria: %s",
                                          "AssembleSystemCalls", static_cast<long>(m_id), m_filterMatch.c_str()));
        else if (reason == Unusable::InvalidMatchType)
            ZOL_Sysloglevel_warning(m_logModule, label, 246,
                                    VAStr("%s: Filter rule ID %ld has invalid match type: %s", "AssembleSystemCalls",
                                          static_cast<long>(m_id), m_matchCriteria.c_str()));
    }
    if (!lines.reasons.empty())
        logIgnored(m_logModule, 255, m_id);
}

int BridgeFilterRule::ApplySystemCall(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_addCommand);
    return queue->process();
}

bool BridgeFilterRule::operator!=(const BridgeFilterRule& other) const
{
    const auto comparedValues = [](const BridgeFilterRule& rule) {
        return std::tie(rule.m_id, rule.m_mode, rule.m_chainName, rule.m_matchCriteria, rule.m_filterMatch);
    };
    return comparedValues(*this) != comparedValues(other);
}

} // namespace zol::moatkeeper
