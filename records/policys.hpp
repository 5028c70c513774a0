// Interface policies: what happens to frames of a port, or of a pair of ports, that no rule has decided.
#pragma once

#include "platform/sysloglevel.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace zol::cfg
{
class ActionQueue;
}

namespace zol::moatkeeper
{

// Both records are plain values: assembled once in the constructor, never changed afterwards. An unknown policy
// is logged and leaves both lines empty; such a record keeps its place in the list all the same.

// One enabled row of "MoatKeeperInputPolicy".
class InputPolicy
{
public:
    // interface: the port that frames arrive on. policy: "ACCEPT" or "DROP". enableLogging: exactly 1 logs.
    InputPolicy(std::int32_t id, std::string_view interface, std::string_view policy, std::int32_t enableLogging);

    // Hands the add line to the queue and has it carried out; returns what the queue's process returns.
    int ApplySystemCall(cfg::ActionQueue* queue) const;

    std::int32_t id() const { return m_id; }
    const std::string& addCommand() const { return m_addCommand; }
    const std::string& deleteCommand() const { return m_deleteCommand; }

    // Compares the row values; the lines follow from them.
    bool operator!=(const InputPolicy& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::string m_interface;
    std::string m_policy;
    std::int32_t m_enableLogging;
    std::string m_addCommand;
    std::string m_deleteCommand;
    ZOL_Sysloglevel_Module m_logModule;
};

// One enabled row of "MoatKeeperForwardingPolicy".
class ForwardingPolicy
{
public:
    // inInterface, outInterface: the ports that frames arrive on and leave by. The rest as for InputPolicy.
    ForwardingPolicy(std::int32_t id, std::string_view inInterface, std::string_view outInterface,
                     std::string_view policy, std::int32_t enableLogging);

    int ApplySystemCall(cfg::ActionQueue* queue) const;

    std::int32_t id() const { return m_id; }
    const std::string& addCommand() const { return m_addCommand; }
    const std::string& deleteCommand() const { return m_deleteCommand; }

    bool operator!=(const ForwardingPolicy& other) const;

private:
    void AssembleSystemCalls();

    std::int32_t m_id;
    std::string m_inInterface;
    std::string m_outInterface;
    std::string m_policy;
    std::int32_t m_enableLogging;
    std::string m_addCommand;
    std::string m_deleteCommand;
    ZOL_Sysloglevel_Module m_logModule;
};

} // namespace zol::moatkeeper
