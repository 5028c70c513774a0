#include "records/policys.hpp"

#include "platform/action_queue.hpp"
#include "records/row_lines.hpp"

#include <tuple>
#include <utility>

namespace zol::moatkeeper
{

namespace
{

constexpr const char* label = "policys";

// line: the number of the message about an unknown policy.
void logReasons(const RowLines& lines, const std::string& policy, ZOL_Sysloglevel_Module logModule, int line)
{
    for (const Unusable reason : lines.reasons) {
        if (reason == Unusable::UnknownPolicy)
            ZOL_Sysloglevel_error(logModule, label, line,
                                  VAStr("%s: unknown Policy %s", "AssembleSystemCalls", policy.c_str()));
    }
}

} // namespace

InputPolicy::InputPolicy(std::int32_t id, std::string_view interface, std::string_view policy,
                         std::int32_t enableLogging)
    : m_id(id),
      m_interface(interface),
      m_policy(policy),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void InputPolicy::AssembleSystemCalls()
{
    RowLines lines = linesOf(
        InputPolicyRow{.id = m_id, .interface = m_interface, .policy = m_policy, .enableLogging = m_enableLogging});
    m_addCommand = std::move(lines.addCommand);
    m_deleteCommand = std::move(lines.deleteCommand);
    logReasons(lines, m_policy, m_logModule, 59);
}

int InputPolicy::ApplySystemCall(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_addCommand);
    return queue->process();
}

bool InputPolicy::operator!=(const InputPolicy& other) const
{
    const auto rowValues = [](const InputPolicy& record) {
        return std::tie(record.m_id, record.m_interface, record.m_policy, record.m_enableLogging);
    };
    return rowValues(*this) != rowValues(other);
}

ForwardingPolicy::ForwardingPolicy(std::int32_t id, std::string_view inInterface, std::string_view outInterface,
                                   std::string_view policy, std::int32_t enableLogging)
    : m_id(id),
      m_inInterface(inInterface),
      m_outInterface(outInterface),
      m_policy(policy),
      m_enableLogging(enableLogging),
      m_logModule(ZOL_Sysloglevel_registerModul("moatkeeper"))
{
    AssembleSystemCalls();
}

void ForwardingPolicy::AssembleSystemCalls()
{
    RowLines lines = linesOf(ForwardingPolicyRow{.id = m_id,
                                                 .inInterface = m_inInterface,
                                                 .outInterface = m_outInterface,
                                                 .policy = m_policy,
                                                 .enableLogging = m_enableLogging});
    m_addCommand = std::move(lines.addCommand);
    m_deleteCommand = std::move(lines.deleteCommand);
    logReasons(lines, m_policy, m_logModule, 127);
}

int ForwardingPolicy::ApplySystemCall(cfg::ActionQueue* queue) const
{
    queue->addCommand(m_addCommand);
    return queue->process();
}

bool ForwardingPolicy::operator!=(const ForwardingPolicy& other) const
{
    const auto rowValues = [](const ForwardingPolicy& record) {
        return std::tie(record.m_id, record.m_inInterface, record.m_outInterface, record.m_policy,
                        record.m_enableLogging);
    };
    return rowValues(*this) != rowValues(other);
}

} // namespace zol::moatkeeper
