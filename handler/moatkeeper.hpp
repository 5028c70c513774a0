// The configuration handler: reads the six tables, works out which groups changed, and applies those groups.
#pragma once

#include "platform/config_handler.hpp"
#include "platform/sysloglevel.h"
#include "records/etherrules.hpp"
#include "records/filters.hpp"
#include "records/policys.hpp"

#include <cstdint>
#include <list>
#include <string>

namespace zol::moatkeeper
{

// Called by the platform's notification machinery, on its thread: any number of loadFromConfig, then
// commitToSystem. Owns every record. What it puts into the bridge tables its destructor takes out again; a
// handler that was never asked to commit has nothing to take out.
//
// Bad configuration values never stop it: the row is skipped, or its record queues empty lines, and a log line
// says why. Exceptions of the platform pass through, out of the destructor as well unless another one is under way;
// flags of groups not yet applied stay set.
class moatkeeper : public cfg::IConfigHandler
{
public:
    moatkeeper();
    ~moatkeeper() noexcept(false) override;
    moatkeeper(const moatkeeper&) = delete;
    moatkeeper& operator=(const moatkeeper&) = delete;

    void getTableNames(std::list<std::string>& tableNames) override;
    bool loadFromConfig(cfg::IConfigReader& source, const std::string& tableName) override;
    void commitToSystem(cfg::IConfigReader& source, cfg::ActionQueue* queue) override;

    void setDebugMode(bool on);

private:
    // Readers: rebuild a group from its table. Each returns 1 when the group differs from what was read before,
    // else 0. All but the main table's overwrite their flag, so that a read that finds no difference takes back
    // a change that is not yet applied.
    int ReadMoatKeeperMain(cfg::IConfigReader& source);
    int ReadMoatKeeperRuleset(cfg::IConfigReader& source);
    int ReadMoatKeeperInputPolicy(cfg::IConfigReader& source);
    int ReadMoatKeeperForwardingPolicy(cfg::IConfigReader& source);
    int ReadMoatKeeperFilters(cfg::IConfigReader& source);
    int ReadMoatKeeperFilterRules(cfg::IConfigReader& source);

    void SortRules();
    void SortFilters();

    // The first filter with this id in m_filters, or what stands for none.
    const BridgeFilter* FindFilter(std::int32_t id) const;
    bool IsFilterValid(std::int32_t id) const;
    std::string GetFilterChainName(std::int32_t id) const;
    std::string GetFilterMode(std::int32_t id) const;
    std::string GetFilterMatchCriteria(std::int32_t id) const;

    // Compares two lists position by position, logging each position with what it holds in debug mode. The earlier one
    // is used up.
    template <typename Records>
    bool RecordsDiffer(const Records& current, Records previous, const char* equalName, int equalLine,
                       const char* changedName, int changedLine) const;

    void Init();
    void CleanUp();
    void SetUpGlobalPolicy();
    void SetUpInputPolicys();
    void SetUpForwardingPolicys();
    void SetUpEtherRules();
    void SetUpBridgeFilters();
    void SetUpBridgeFilterRules();
    void DeleteBridgeFilters();
    void DeletePreviousBridgeFilters();

    // Queues lines that belong together and has them carried out.
    template <typename Lines>
    void QueueGroup(const Lines& lines);

    // Every message has a number of its own, which stays the same for ever: log filters go by it.
    void LogTrace(int line, const char* operation) const;
    void LogInfo(int line, const std::string& text) const;
    void LogWarning(int line, const std::string& text) const;

    ZOL_Sysloglevel_Module m_logModule;
    bool m_debugMode = false;
    bool m_initialised = false; // the user chains are there
    bool m_forwardingPolicyChanged = true;
    bool m_inputPolicyChanged = true;
    bool m_globalPolicyChanged = true;
    bool m_rulesChanged = true;
    bool m_filtersChanged = true;
    bool m_filterRulesChanged = true;
    std::string m_globalInputPolicy;
    std::string m_globalForwardingPolicy;
    cfg::ActionQueue* m_actionQueue = nullptr; // the platform's, from the first commit on
    std::list<EtherRule> m_rules;
    std::list<ForwardingPolicy> m_forwardingPolicies;
    std::list<InputPolicy> m_inputPolicies;
    std::list<BridgeFilter> m_filters;
    std::list<BridgeFilter> m_previousFilters; // as before the latest read; the next commit removes them
    std::list<BridgeFilterRule> m_filterRules;
};

} // namespace zol::moatkeeper
