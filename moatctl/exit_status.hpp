// How moatctl ends. The numbers are part of its interface: scripts rely on them.
#pragma once

#include <stdexcept>
#include <string>

namespace moatctl
{

enum class ExitStatus {
    Ok = 0,         // done; check found nothing
    Warnings = 1,   // check found warnings; status or devices found something wrong
    BadInput = 2,   // the command line, a file or a configuration has errors, nothing was changed; explain cannot tell
    Server = 3,     // the server cannot be reached, does not answer in time, has another schema or refused the request
    Conflict = 4,   // a row is missing, exists already or is in use, or others kept changing it; nothing was changed
    Output = 5,     // the output could not be written, or there was not enough memory
    NotInForce = 6, // the change was stored, but rows of it are not in force
    NotApplied = 7, // the change was stored, but no daemon has said in time that it applies it
    Kernel = 8,     // the kernel's tables cannot be read, or it cannot trace, and there is nothing to say without
    WentBack = 9,   // a rollout has stopped, and what it had changed was taken back
    HalfWay = 10,   // a rollout has stopped, and what it had changed is left somewhere
};

// Ends the program with one line on standard error and the status. The text has no line break.
class Failure : public std::runtime_error
{
public:
    Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), m_status(status) {}
    ExitStatus status() const { return m_status; }

private:
    ExitStatus m_status;
};

} // namespace moatctl
