#include "platform/assert_hook.hpp"

#include "platform_fake/journal.hpp"

namespace zol::error
{

DefaultAssertHook::DefaultAssertHook()
{
    fake::journal().note({"DefaultAssertHook()"});
}

DefaultAssertHook::~DefaultAssertHook()
{
    fake::journal().note({"~DefaultAssertHook()"});
}

void DefaultAssertHook::setSyslog(bool on)
{
    fake::journal().note({"DefaultAssertHook::setSyslog(", on ? "true" : "false", ")"});
}

} // namespace zol::error
