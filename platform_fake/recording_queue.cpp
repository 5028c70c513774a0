#include "platform_fake/recording_queue.hpp"

#include "platform_fake/journal.hpp"

#include <utility>

namespace fake
{

void RecordingQueue::addCommand(const std::string& commandLine)
{
    if (onAddCommand)
        onAddCommand(commandLine);
    journal().note({"addCommand(\"", commandLine, "\")"});
    m_calls.push_back(QueueCall::add(commandLine));
}

int RecordingQueue::process()
{
    if (onProcess)
        onProcess();
    journal().note({"process()"});
    m_calls.push_back(QueueCall::process());
    return processResult;
}

std::vector<QueueCall> RecordingQueue::takeCalls()
{
    return std::exchange(m_calls, {});
}

std::vector<std::string> RecordingQueue::lines() const
{
    std::vector<std::string> lines;
    for (const QueueCall& call : m_calls) {
        if (!call.isProcess)
            lines.push_back(call.line);
    }
    return lines;
}

} // namespace fake
