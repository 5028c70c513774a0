// What happens when the process meets a state that must not be: one report, then abort.
#pragma once

namespace zol::error
{

// While an object lives, a failed assertion or an exception that nobody catches is reported before the
// process aborts. One object at a time, constructed and destroyed on the main thread.
class DefaultAssertHook
{
public:
    DefaultAssertHook();
    ~DefaultAssertHook();
    DefaultAssertHook(const DefaultAssertHook&) = delete;
    DefaultAssertHook& operator=(const DefaultAssertHook&) = delete;

    // Reports go to syslog (true) or to standard error (false, the state after construction).
    void setSyslog(bool on);
};

} // namespace zol::error
