// The log: everything but trace lines to standard error, or to syslog.
#include "platform/assert_hook.hpp"
#include "platform/sysloglevel.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <syslog.h>

namespace
{

bool g_useSyslog = false;

void write(int priority, const char* label, int line, std::string_view text)
{
    const std::string whole = std::string(label) + ":" + std::to_string(line) + ": " + std::string(text);
    if (g_useSyslog)
        syslog(priority, "%s", whole.c_str());
    else
        std::cerr << whole << '\n';
}

} // namespace

void ZOL_Sysloglevel_construct2(const char* /*configuration*/, const char* /*programPath*/)
{
    openlog("printing_moatkeeper", LOG_PID, LOG_DAEMON);
}

ZOL_Sysloglevel_Module ZOL_Sysloglevel_registerModul(const char* moduleName)
{
    static std::map<std::string, ZOL_Sysloglevel_Module> modules;
    return modules.try_emplace(moduleName, static_cast<ZOL_Sysloglevel_Module>(modules.size() + 1)).first->second;
}

void ZOL_Sysloglevel_changeTracelevel(const char* /*moduleName*/, int /*level*/) {}

void ZOL_Sysloglevel_set(int useSyslog)
{
    g_useSyslog = useSyslog != 0;
}

void ZOL_Sysloglevel_trace(ZOL_Sysloglevel_Module, const char*, int, std::string_view) {}

void ZOL_Sysloglevel_info(ZOL_Sysloglevel_Module, const char* label, int line, std::string_view text)
{
    write(LOG_INFO, label, line, text);
}

void ZOL_Sysloglevel_warning(ZOL_Sysloglevel_Module, const char* label, int line, std::string_view text)
{
    write(LOG_WARNING, label, line, text);
}

void ZOL_Sysloglevel_error(ZOL_Sysloglevel_Module, const char* label, int line, std::string_view text)
{
    write(LOG_ERR, label, line, text);
}

std::string VAStr(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (!text.empty())
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

namespace zol::error
{

// The C++ library's own words on standard error are enough here.
DefaultAssertHook::DefaultAssertHook() = default;
DefaultAssertHook::~DefaultAssertHook() = default;
void DefaultAssertHook::setSyslog(bool /*on*/) {}

} // namespace zol::error
