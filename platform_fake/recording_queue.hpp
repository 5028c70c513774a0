// A command queue that carries nothing out and remembers everything.
#pragma once

#include "platform/action_queue.hpp"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace fake
{

// One call of the queue: a line queued, or a call of process.
struct QueueCall {
    bool isProcess = false;
    std::string line; // empty for process

    static QueueCall add(std::string commandLine) { return {false, std::move(commandLine)}; }
    static QueueCall process() { return {true, ""}; }

    bool operator==(const QueueCall&) const = default;
};

// The hooks run before a call is recorded: an exception that one throws reaches the handler, and the call is not
// recorded. Empty hooks are not called. One thread.
class RecordingQueue : public zol::cfg::ActionQueue
{
public:
    void addCommand(const std::string& commandLine) override;

    // Returns processResult.
    int process() override;

    const std::vector<QueueCall>& calls() const { return m_calls; }

    // Hands the calls over and starts with none.
    std::vector<QueueCall> takeCalls();

    // The lines of the calls recorded so far, in order, without the calls of process.
    std::vector<std::string> lines() const;

    int processResult = 0;
    std::function<void(const std::string& commandLine)> onAddCommand;
    std::function<void()> onProcess;

private:
    std::vector<QueueCall> m_calls;
};

} // namespace fake
