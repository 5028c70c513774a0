#include "platform/assert_hook.hpp"

#include "platform_fake/device.hpp"
#include "platform_fake/journal.hpp"

namespace zol::error
{

DefaultAssertHook::DefaultAssertHook()
{
    fake::journal().note({"DefaultAssertHook()"});
    fake::device().hookAlive = true;
}

DefaultAssertHook::~DefaultAssertHook()
{
    fake::journal().note({"~DefaultAssertHook()"});
    fake::device().hookAlive = false;
}

void DefaultAssertHook::setSyslog(bool on)
{
    fake::journal().note({"DefaultAssertHook::setSyslog(", on ? "true" : "false", ")"});
    fake::device().hookUsesSyslog = on;
}

} // namespace zol::error
