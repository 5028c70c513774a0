#include "platform/sysloglevel.h"

#include "platform_fake/captured_log.hpp"
#include "platform_fake/journal.hpp"

#include <cstdarg>
#include <cstdio>

namespace
{

void write(fake::LogLevel level, ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    fake::journal().note({fake::toString(level), " ", label, ":", std::to_string(line), ": ", text});
    fake::capturedLog().add({level, module, label, line, std::string(text)});
}

} // namespace

void ZOL_Sysloglevel_construct2(const char* configuration, const char* programPath)
{
    fake::journal().note({"ZOL_Sysloglevel_construct2(\"", configuration, "\", \"", programPath, "\")"});
}

ZOL_Sysloglevel_Module ZOL_Sysloglevel_registerModul(const char* moduleName)
{
    fake::journal().note({"ZOL_Sysloglevel_registerModul(\"", moduleName, "\")"});
    return fake::capturedLog().registerModule(moduleName);
}

void ZOL_Sysloglevel_changeTracelevel(const char* moduleName, int level)
{
    fake::journal().note({"ZOL_Sysloglevel_changeTracelevel(\"", moduleName, "\", ", std::to_string(level), ")"});
}

void ZOL_Sysloglevel_set(int useSyslog)
{
    fake::journal().note({"ZOL_Sysloglevel_set(", std::to_string(useSyslog), ")"});
}

void ZOL_Sysloglevel_trace(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    write(fake::LogLevel::trace, module, label, line, text);
}

void ZOL_Sysloglevel_info(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    write(fake::LogLevel::info, module, label, line, text);
}

void ZOL_Sysloglevel_warning(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    write(fake::LogLevel::warning, module, label, line, text);
}

void ZOL_Sysloglevel_error(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    write(fake::LogLevel::error, module, label, line, text);
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
