#include "platform/sysloglevel.h"

#include "platform_linux/log_writer.hpp"
#include "platform_linux/signals.hpp"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace
{

struct Module {
    std::string name;
    int traceLevel = 0;
};

std::vector<Module> g_modules; // a handle is an index
logging::Target g_target = logging::Target::standardError;

ZOL_Sysloglevel_Module moduleNamed(std::string_view name)
{
    for (std::size_t i = 0; i < g_modules.size(); ++i)
        if (g_modules[i].name == name)
            return static_cast<ZOL_Sysloglevel_Module>(i);
    g_modules.push_back({std::string(name)});
    return static_cast<ZOL_Sysloglevel_Module>(g_modules.size() - 1);
}

void writeLine(logging::Severity severity, const char* label, int line, std::string_view text) noexcept
{
    try {
        logging::write(g_target, severity, logging::formatLine(label, line, text));
    } catch (...) { // out of memory: the line is lost
    }
}

} // namespace

void ZOL_Sysloglevel_construct2(const char* /*configuration*/, const char* programPath)
{
    zol::platform::ignoreMeaninglessSignals(); // here, because it is the first thing that a process calls
    const std::string_view path = programPath;
    logging::prepare(path.substr(path.rfind('/') + 1)); // npos + 1 is 0: the whole path
}

ZOL_Sysloglevel_Module ZOL_Sysloglevel_registerModul(const char* moduleName)
{
    return moduleNamed(moduleName);
}

void ZOL_Sysloglevel_changeTracelevel(const char* moduleName, int level)
{
    g_modules[moduleNamed(moduleName)].traceLevel = level;
}

void ZOL_Sysloglevel_set(int useSyslog)
{
    g_target = useSyslog != 0 ? logging::Target::syslog : logging::Target::standardError;
}

void ZOL_Sysloglevel_trace(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text)
{
    if (module < g_modules.size() && g_modules[module].traceLevel != 0)
        writeLine(logging::Severity::debug, label, line, text);
}

void ZOL_Sysloglevel_info(ZOL_Sysloglevel_Module /*module*/, const char* label, int line, std::string_view text)
{
    writeLine(logging::Severity::info, label, line, text);
}

void ZOL_Sysloglevel_warning(ZOL_Sysloglevel_Module /*module*/, const char* label, int line, std::string_view text)
{
    writeLine(logging::Severity::warning, label, line, text);
}

void ZOL_Sysloglevel_error(ZOL_Sysloglevel_Module /*module*/, const char* label, int line, std::string_view text)
{
    writeLine(logging::Severity::error, label, line, text);
}

std::string VAStr(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);

    std::string text;
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    va_end(arguments);
    return text;
}
