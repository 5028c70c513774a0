#include "platform/assert_hook.hpp"

#include "platform/sysloglevel.h"
#include "platform_linux/log_writer.hpp"

#include <cstdlib>
#include <exception>

// For the declaration of __assert_fail, which release builds would otherwise not see.
#undef NDEBUG
#include <cassert>

namespace
{

logging::Target g_target = logging::Target::standardError;
std::terminate_handler g_previousHandler = nullptr;

void report(int line, const std::string& text)
{
    logging::write(g_target, logging::Severity::error, logging::formatLine("assert", line, text));
}

[[noreturn]] void onTerminate()
{
    if (const std::exception_ptr error = std::current_exception()) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            report(10, VAStr("Uncaught exception: %s", e.what()));
        } catch (...) {
            report(20, "Uncaught exception of an unknown type");
        }
    } else {
        report(30, "Terminated without an exception");
    }
    std::abort();
}

} // namespace

// What assert() calls. The C library's own function writes to standard error only.
void __assert_fail(const char* assertion, const char* file, unsigned int line, // NOLINT(bugprone-reserved-identifier)
                   const char* function) noexcept
{
    report(40, VAStr("%s:%u: %s: Assertion '%s' failed", file, line, function, assertion));
    std::abort();
}

namespace zol::error
{

DefaultAssertHook::DefaultAssertHook()
{
    g_target = logging::Target::standardError;
    g_previousHandler = std::set_terminate(onTerminate);
}

DefaultAssertHook::~DefaultAssertHook()
{
    std::set_terminate(g_previousHandler);
    g_target = logging::Target::standardError;
}

void DefaultAssertHook::setSyslog(bool on)
{
    g_target = on ? logging::Target::syslog : logging::Target::standardError;
}

} // namespace zol::error
