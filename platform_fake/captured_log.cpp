#include "platform_fake/captured_log.hpp"

#include <utility>

namespace fake
{

const char* toString(LogLevel level)
{
    switch (level) {
    case LogLevel::trace:
        return "trace";
    case LogLevel::info:
        return "info";
    case LogLevel::warning:
        return "warning";
    case LogLevel::error:
        break;
    }
    return "error";
}

std::vector<LogLine> CapturedLog::takeLines()
{
    return std::exchange(m_lines, {});
}

std::size_t CapturedLog::registrations(const std::string& moduleName) const
{
    const auto found = m_modules.find(moduleName);
    return found != m_modules.end() ? found->second.registrations : 0;
}

std::string CapturedLog::moduleName(std::uint32_t handle) const
{
    for (const auto& [name, module] : m_modules) {
        if (module.handle == handle)
            return name;
    }
    return "";
}

std::uint32_t CapturedLog::registerModule(const std::string& moduleName)
{
    // Handles start at 1, so that 0 shows a caller that never registered.
    Module& module = m_modules[moduleName];
    if (module.handle == 0)
        module.handle = static_cast<std::uint32_t>(m_modules.size());
    ++module.registrations;
    return module.handle;
}

void CapturedLog::add(LogLine line)
{
    m_lines.push_back(std::move(line));
}

CapturedLog& capturedLog()
{
    static CapturedLog instance;
    return instance;
}

} // namespace fake
