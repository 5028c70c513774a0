#include "handler/moatkeeper.hpp"

#include "handler/fixed_lines.hpp"
#include "handler/passed_over.hpp"
#include "handler/priority_order.hpp"
#include "handler/reading.hpp"
#include "handler/rows_from_values.hpp"
#include "platform/action_queue.hpp"

#include <exception>
#include <optional>
#include <string_view>
#include <utility>

namespace zol::moatkeeper
{

using cfg::ActionQueue;
using cfg::IConfigReader;

unsigned char g_debugMode = 0;

namespace
{

// What the filter look-ups give for an id that no filter has.
constexpr const char* noFilter = "FAILED";

bool CompareFilterPrio(const BridgeFilter& a, const BridgeFilter& b)
{
    return comesBeforeAsFilter(a.prio(), b.prio());
}

} // namespace

moatkeeper::moatkeeper() : m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    LogTrace(96, "moatkeeper");
}

moatkeeper::~moatkeeper() noexcept(false)
{
    LogTrace(101, "~moatkeeper");
    if (!m_initialised)
        return;
    // A second exception while one is under way would end the process at once.
    const bool mayThrow = std::uncaught_exceptions() == 0;
    try {
        CleanUp();
    } catch (const std::exception& failure) {
        if (mayThrow)
            throw;
        ZOL_Sysloglevel_error(m_logModule, label, 104, VAStr("%s: %s", "~moatkeeper", failure.what()));
    } catch (...) {
        if (mayThrow)
            throw;
        ZOL_Sysloglevel_error(m_logModule, label, 104, VAStr("%s: unknown exception", "~moatkeeper"));
    }
}

void moatkeeper::getTableNames(std::list<std::string>& tableNames)
{
    LogTrace(107, "getTableNames");
    tableNames.insert(tableNames.end(), {mainTable, inputPolicyTable, forwardingPolicyTable, rulesetTable, filtersTable,
                                         filterRulesTable});
}

bool moatkeeper::loadFromConfig(IConfigReader& source, const std::string& tableName)
{
    if (g_debugMode)
        LogInfo(121, VAStr("%s: Notification on table  %s received.", "loadFromConfig", tableName.c_str()));
    LogTrace(123, "loadFromConfig");

    const bool all = tableName.empty();
    int changed = 0;
    if (all || tableName == mainTable)
        changed = ReadMoatKeeperMain(source);
    if (all || tableName == rulesetTable)
        changed |= ReadMoatKeeperRuleset(source);
    if (all || tableName == inputPolicyTable)
        changed |= ReadMoatKeeperInputPolicy(source);
    if (all || tableName == forwardingPolicyTable)
        changed |= ReadMoatKeeperForwardingPolicy(source);
    if (all || tableName == filterRulesTable || tableName == filtersTable) {
        // The rules refer to the filters just read.
        changed |= ReadMoatKeeperFilters(source);
        changed |= ReadMoatKeeperFilterRules(source);
    }
    return changed != 0;
}

void moatkeeper::commitToSystem(IConfigReader& /*source*/, ActionQueue* queue)
{
    LogTrace(152, "commitToSystem");
    if (g_debugMode)
        LogInfo(154, VAStr("%s: commitToSystem is called", "commitToSystem"));

    if (!m_initialised) {
        m_initialised = true;
        m_actionQueue = queue;
        Init();
    }

    if (m_filtersChanged || m_filterRulesChanged) {
        if (g_debugMode)
            LogInfo(166, VAStr("%s: some user bridge filters changed, will apply them.", "commitToSystem"));
        DeletePreviousBridgeFilters();
        SetUpBridgeFilters();
        SetUpBridgeFilterRules();
        m_filtersChanged = false;
        m_filterRulesChanged = false;
    }
    if (m_rulesChanged) {
        if (g_debugMode)
            LogInfo(178, VAStr("%s: some filtering rules changed, will apply them.", "commitToSystem"));
        SetUpEtherRules();
        m_rulesChanged = false;
    }
    if (m_globalPolicyChanged) {
        if (g_debugMode)
            LogInfo(186, VAStr("%s: some global policy changed, will apply them.", "commitToSystem"));
        SetUpGlobalPolicy();
        m_globalPolicyChanged = false;
    }
    if (m_inputPolicyChanged) {
        if (g_debugMode)
            LogInfo(194, VAStr("%s: some user (input) chain policy changed, will apply them.", "commitToSystem"));
        SetUpInputPolicys();
        m_inputPolicyChanged = false;
    }
    if (m_forwardingPolicyChanged) {
        if (g_debugMode)
            LogInfo(202, VAStr("%s: some user (forward) chain policy changed, will apply them.", "commitToSystem"));
        SetUpForwardingPolicys();
        m_forwardingPolicyChanged = false;
    }
}

void moatkeeper::setDebugMode(bool on)
{
    if (on)
        LogInfo(603, VAStr("%s: Debug mode is set to %d!", "setDebugMode", 1));
    m_debugMode = on;
}

int moatkeeper::ReadMoatKeeperMain(IConfigReader& source)
{
    LogTrace(300, "ReadMoatKeeperMain");

    tessera::ValueList values;
    tessera::NameList names;
    bool changed = false;
    if (rowCount(source, mainTable) != 0) {
        // Only the first row counts.
        source.readRow(mainTable, 0, names, values);
        const GlobalRow row = globalRow(RowRead{values});
        if (row.inputPolicy != m_globalInputPolicy || row.forwardingPolicy != m_globalForwardingPolicy) {
            m_globalInputPolicy = row.inputPolicy;
            m_globalForwardingPolicy = row.forwardingPolicy;
            m_globalPolicyChanged = true;
            if (g_debugMode)
                LogInfo(320, VAStr("%s: Global Policys changed: INPUT: %s, FORWARD: %s", "ReadMoatKeeperMain",
                                   m_globalInputPolicy.c_str(), m_globalForwardingPolicy.c_str()));
            changed = true;
        }
    }
    if (g_debugMode)
        LogInfo(328, VAStr("%s: will return %d", "ReadMoatKeeperMain", changed));
    return changed;
}

int moatkeeper::ReadMoatKeeperInputPolicy(IConfigReader& source)
{
    LogTrace(335, "ReadMoatKeeperInputPolicy");

    std::list<InputPolicy> previous = std::exchange(m_inputPolicies, {});

    readRows(source, inputPolicyTable, [this](const RowRead& values) {
        const InputPolicyRow policy = inputPolicyRow(values);
        if (!whyPassedOver(policy))
            m_inputPolicies.emplace_back(policy.id, policy.interface, policy.policy, policy.enableLogging);
    });

    m_inputPolicyChanged =
        RecordsDiffer(m_inputPolicies, std::move(previous), "Input Policy ", 368, "Input Policy ", 371);
    return m_inputPolicyChanged;
}

int moatkeeper::ReadMoatKeeperForwardingPolicy(IConfigReader& source)
{
    LogTrace(388, "ReadMoatKeeperForwardingPolicy");

    std::list<ForwardingPolicy> previous = std::exchange(m_forwardingPolicies, {});

    readRows(source, forwardingPolicyTable, [this](const RowRead& values) {
        const ForwardingPolicyRow policy = forwardingPolicyRow(values);
        if (!whyPassedOver(policy))
            m_forwardingPolicies.emplace_back(policy.id, policy.inInterface, policy.outInterface, policy.policy,
                                              policy.enableLogging);
    });

    m_forwardingPolicyChanged =
        RecordsDiffer(m_forwardingPolicies, std::move(previous), "Forwarding Policy", 422, "Forwarding Policy ", 425);
    return m_forwardingPolicyChanged;
}

int moatkeeper::ReadMoatKeeperFilters(IConfigReader& source)
{
    LogTrace(441, "ReadMoatKeeperFilters");
    if (g_debugMode)
        LogInfo(447, VAStr("%s: will read all MoatKeeperFilters from Database", "ReadMoatKeeperFilters"));

    m_previousFilters = std::exchange(m_filters, {});

    readRows(source, filtersTable, [this](const RowRead& values) {
        const FilterRow filter = filterRow(values);
        const std::optional<Unusable> why = whyPassedOver(filter);
        if (why == Unusable::Disabled) {
            if (g_debugMode)
                LogInfo(487, VAStr("%s: ignore Filter Id %d because filter is disabled.", "ReadMoatKeeperFilters",
                                   filter.id));
        } else if (why == Unusable::Incomplete) {
            LogWarning(
                476, VAStr("%s: ignore Filter Id %d because rule is incomplete.", "ReadMoatKeeperFilters", filter.id));
        } else if (why == Unusable::PriorityZero) {
            LogWarning(480,
                       VAStr("%s: ignore Filter Id %d because of invalid prio", "ReadMoatKeeperFilters", filter.id));
        } else {
            m_filters.emplace_back(filter.id, filter.mode, filter.inInterface, filter.outInterface,
                                   filter.matchCriteria, filter.prio);
        }
    });

    SortFilters();
    const bool changed =
        RecordsDiffer(m_filters, m_previousFilters, "Moatkeeper Filter", 502, "Moatkeeper Filter", 505);
    if (g_debugMode)
        LogInfo(513, VAStr("%s: will return %d", "ReadMoatKeeperFilters", changed));
    m_filtersChanged = changed;
    return changed;
}

int moatkeeper::ReadMoatKeeperFilterRules(IConfigReader& source)
{
    LogTrace(521, "ReadMoatKeeperFilterRules");
    if (g_debugMode)
        LogInfo(527, VAStr("%s: will read all MoatKeeperBridgeFilterRules from Database", "ReadMoatKeeperFilterRules"));

    std::list<BridgeFilterRule> previous = std::exchange(m_filterRules, {});

    readRows(source, filterRulesTable, [this](const RowRead& values) {
        const FilterRuleRow rule = filterRuleRow(values);
        const std::optional<Unusable> why = whyPassedOver(rule, IsFilterValid(rule.filterId));
        if (why == Unusable::Disabled) {
            if (g_debugMode)
                LogInfo(571, VAStr("%s: ignore Filter Id %d because filter is disabled.", "ReadMoatKeeperFilterRules",
                                   rule.id));
        } else if (why == Unusable::InvalidReference) {
            LogWarning(552, VAStr("%s: ignore Filter Rule Id %d because rule has invalid reference (maybe disabled).",
                                  "ReadMoatKeeperFilterRules", rule.id));
        } else if (why == Unusable::NoMatch) {
            LogWarning(563, VAStr("%s: ignore Filter Rule Id %d because rule does not have a match citeria",
                                  "ReadMoatKeeperFilterRules", rule.id));
        } else {
            m_filterRules.emplace_back(rule.id, GetFilterMode(rule.filterId), GetFilterChainName(rule.filterId),
                                       GetFilterMatchCriteria(rule.filterId), rule.filterMatch);
        }
    });

    const bool changed =
        RecordsDiffer(m_filterRules, std::move(previous), "Moatkeeper Filterrule", 584, "Moatkeeper Filterrule", 587);
    if (g_debugMode)
        LogInfo(595, VAStr("%s: will return %d", "ReadMoatKeeperFilterRules", changed));
    m_filterRulesChanged = changed;
    return changed;
}

const BridgeFilter* moatkeeper::FindFilter(std::int32_t id) const
{
    for (const BridgeFilter& filter : m_filters) {
        if (filter.id() == id)
            return &filter;
    }
    return nullptr;
}

bool moatkeeper::IsFilterValid(std::int32_t id) const
{
    const BridgeFilter* filter = FindFilter(id);
    return filter != nullptr && filter->valid();
}

std::string moatkeeper::GetFilterChainName(std::int32_t id) const
{
    const BridgeFilter* filter = FindFilter(id);
    return filter != nullptr ? filter->chainName() : noFilter;
}

std::string moatkeeper::GetFilterMode(std::int32_t id) const
{
    const BridgeFilter* filter = FindFilter(id);
    return filter != nullptr ? filter->mode() : noFilter;
}

std::string moatkeeper::GetFilterMatchCriteria(std::int32_t id) const
{
    const BridgeFilter* filter = FindFilter(id);
    return filter != nullptr ? filter->matchCriteria() : noFilter;
}

void moatkeeper::SortFilters()
{
    if (g_debugMode)
        LogInfo(678, VAStr("%s: will sort Filters acording their prio!", "SortFilters"));

    m_filters.sort(CompareFilterPrio);

    if (!g_debugMode)
        return;
    LogInfo(683, VAStr("%s: sorted Filters according the following priority:", "SortFilters"));
    for (const BridgeFilter& filter : m_filters)
        LogInfo(687, VAStr("%s: Rule %d", "SortFilters", filter.id()));
}

void moatkeeper::Init()
{
    if (g_debugMode)
        LogInfo(694, VAStr("%s: will create user chains", "Init"));
    QueueGroup(initLines);
}

void moatkeeper::CleanUp()
{
    if (g_debugMode)
        LogInfo(716, VAStr("%s: will delete user chains", "CleanUp"));
    QueueGroup(cleanUpLines);
    DeleteBridgeFilters();
}

void moatkeeper::SetUpGlobalPolicy()
{
    if (g_debugMode)
        LogInfo(736, VAStr("%s: will apply global policys", "SetUpGlobalPolicy"));
    QueueGroup(globalPolicyLines(m_globalInputPolicy, m_globalForwardingPolicy));
}

void moatkeeper::SetUpForwardingPolicys()
{
    if (g_debugMode)
        LogInfo(749, VAStr("%s: will apply Forwarding policys", "SetUpForwardingPolicys"));
    QueueGroup(flushForwardingPoliciesLines);
    for (const ForwardingPolicy& policy : m_forwardingPolicies)
        policy.ApplySystemCall(m_actionQueue);
}

void moatkeeper::SetUpInputPolicys()
{
    if (g_debugMode)
        LogInfo(763, VAStr("%s: will apply input policys", "SetUpInputPolicys"));
    QueueGroup(flushInputPoliciesLines);
    for (const InputPolicy& policy : m_inputPolicies)
        policy.ApplySystemCall(m_actionQueue);
}

void moatkeeper::SetUpEtherRules()
{
    if (g_debugMode)
        LogInfo(777, VAStr("%s: will set up L2 filter Rules", "SetUpEtherRules"));
    QueueGroup(flushRulesLines);
    for (const EtherRule& rule : m_rules)
        rule.ApplySystemCall(m_actionQueue);
}

void moatkeeper::SetUpBridgeFilters()
{
    if (g_debugMode)
        LogInfo(795, VAStr("%s: will set up Bridge Filter Chains", "SetUpBridgeFilters"));
    if (m_filters.empty()) {
        if (g_debugMode)
            LogInfo(798, VAStr("%s: no filters found, will do nothing", "SetUpBridgeFilters"));
        return;
    }
    for (const BridgeFilter& filter : m_filters)
        filter.ApplySetUpCommands(m_actionQueue);
}

void moatkeeper::SetUpBridgeFilterRules()
{
    if (g_debugMode)
        LogInfo(812, VAStr("%s: will set up Bridge Filter Rules", "SetUpBridgeFilterRules"));
    if (m_filterRules.empty()) {
        if (g_debugMode)
            LogInfo(815, VAStr("%s: no rules found for filters, will do nothing", "SetUpBridgeFilterRules"));
        return;
    }
    for (const BridgeFilterRule& rule : m_filterRules)
        rule.ApplySystemCall(m_actionQueue);
}

void moatkeeper::DeleteBridgeFilters()
{
    if (g_debugMode)
        LogInfo(829, VAStr("%s: will delete Bridge Filter Rules", "DeleteBridgeFilters"));
    for (const BridgeFilter& filter : m_filters)
        filter.ApplyTearDownCommands(m_actionQueue);
}

void moatkeeper::DeletePreviousBridgeFilters()
{
    if (g_debugMode)
        LogInfo(841, VAStr("%s: will delete previous Bridge Filter Rules", "DeletePreviousBridgeFilters"));
    for (const BridgeFilter& filter : m_previousFilters)
        filter.ApplyTearDownCommands(m_actionQueue);
    m_previousFilters.clear();
}

template <typename Lines>
void moatkeeper::QueueGroup(const Lines& lines)
{
    for (const auto& line : lines)
        m_actionQueue->addCommand(line);
    m_actionQueue->process();
}

void moatkeeper::LogTrace(int line, const char* operation) const
{
    ZOL_Sysloglevel_trace(m_logModule, label, line, operation);
}

void moatkeeper::LogInfo(int line, const std::string& text) const
{
    ZOL_Sysloglevel_info(m_logModule, label, line, text);
}

void moatkeeper::LogWarning(int line, const std::string& text) const
{
    ZOL_Sysloglevel_warning(m_logModule, label, line, text);
}

} // namespace zol::moatkeeper
