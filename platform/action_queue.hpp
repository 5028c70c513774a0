// The platform's command queue: the one way in which a handler changes the system.
#pragma once

#include <string>

namespace zol::cfg
{

// Takes command lines and carries them out in the order queued.
//
// A line holds one command, or several separated by ';'. It is parsed and checked, never handed to a shell;
// one that the queue does not accept, or that the tool refuses, is logged and dropped, and the others are
// carried out all the same. The empty line does nothing.
// Ownership: the platform's; it outlives the handler. Threading: the daemon's one thread.
class ActionQueue
{
public:
    virtual ~ActionQueue() = default;

    // Appends a line. Takes a copy.
    virtual void addCommand(const std::string& commandLine) = 0;

    // Closes the group of lines queued so far; the platform carries closed groups out in order, at the latest
    // when the handler's commitToSystem has returned. Returns 0, or -1 when a line of the group was not accepted.
    virtual int process() = 0;
};

} // namespace zol::cfg
