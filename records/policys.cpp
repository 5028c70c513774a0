#include "records/policys.hpp"

#include "platform/action_queue.hpp"

#include <optional>
#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "policys";

// The end of a policy's line: the log option where wanted, and the target. Nothing for an unknown policy, which
// is reported whether or not logging is on. line: the number of that message.
std::optional<std::string> assembleTarget(const std::string& policy, std::int32_t enableLogging,
                                          ZOL_Sysloglevel_Module logModule, int line)
{
    std::string logOption;
    if (policy == "ACCEPT") {
        logOption = " --log --log-prefix \"Moatkeeper accepted: \"";
    } else if (policy == "DROP") {
        logOption = " --log --log-prefix \"Moatkeeper denied: \"";
    } else {
        ZOL_Sysloglevel_error(logModule, label, line,
                              VAStr("%s: unknown Policy %s", "AssembleSystemCalls", policy.c_str()));
        return std::nullopt;
    }
    return (enableLogging == 1 ? logOption : std::string()) + " -j " + policy;
}

} // namespace

InputPolicy::InputPolicy(std::int32_t id, std::string interface, std::string policy, std::int32_t enableLogging)
    : m_id(id),
      m_interface(std::move(interface)),
      m_policy(std::move(policy)),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void InputPolicy::AssembleSystemCalls()
{
    const std::optional<std::string> target = assembleTarget(m_policy, m_enableLogging, m_logModule, 59);
    if (!target)
        return;
    const std::string rule = " UserInputPolicy -i " + m_interface + *target;
    m_addCommand = "ebtables -A" + rule;
    m_deleteCommand = "ebtables -D" + rule;
}

int InputPolicy::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_addCommand);
    return queue.process();
}

bool InputPolicy::operator==(const InputPolicy& other) const
{
    const auto rowValues = [](const InputPolicy& record) {
        return std::tie(record.m_id, record.m_interface, record.m_policy, record.m_enableLogging);
    };
    return rowValues(*this) == rowValues(other);
}

ForwardingPolicy::ForwardingPolicy(std::int32_t id, std::string inInterface, std::string outInterface,
                                   std::string policy, std::int32_t enableLogging)
    : m_id(id),
      m_inInterface(std::move(inInterface)),
      m_outInterface(std::move(outInterface)),
      m_policy(std::move(policy)),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void ForwardingPolicy::AssembleSystemCalls()
{
    const std::optional<std::string> target = assembleTarget(m_policy, m_enableLogging, m_logModule, 127);
    if (!target)
        return;
    const std::string rule = " UserForwardPolicy -i " + m_inInterface + " -o " + m_outInterface + *target;
    m_addCommand = "ebtables -A" + rule;
    m_deleteCommand = "ebtables -D" + rule;
}

int ForwardingPolicy::ApplySystemCall(cfg::ActionQueue& queue) const
{
    queue.addCommand(m_addCommand);
    return queue.process();
}

bool ForwardingPolicy::operator==(const ForwardingPolicy& other) const
{
    const auto rowValues = [](const ForwardingPolicy& record) {
        return std::tie(record.m_id, record.m_inInterface, record.m_outInterface, record.m_policy,
                        record.m_enableLogging);
    };
    return rowValues(*this) == rowValues(other);
}

} // namespace zol::moatkeeper
