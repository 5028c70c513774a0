// Log lines kept in memory: what a daemon, handler or record logged, in order.
//
// Lines of all four levels are kept: a module's trace level hides nothing here. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake
{

enum class LogLevel { trace, info, warning, error };

// "trace", "info", "warning" or "error".
const char* toString(LogLevel level);

struct LogLine {
    LogLevel level = LogLevel::trace;
    std::uint32_t module = 0; // the handle that was passed, whether registered or not
    std::string label;
    int line = 0;
    std::string text;

    bool operator==(const LogLine&) const = default;
};

class CapturedLog
{
public:
    const std::vector<LogLine>& lines() const { return m_lines; }

    // Hands the lines over and starts with none.
    std::vector<LogLine> takeLines();

    // How often a module was registered; 0 for a name never seen.
    std::size_t registrations(const std::string& moduleName) const;

    // The name behind a handle, "" for a handle that was never given.
    std::string moduleName(std::uint32_t handle) const;

    // Forgets lines and modules.
    void reset() { *this = CapturedLog(); }

    // What the platform's log functions call.
    std::uint32_t registerModule(const std::string& moduleName);
    void add(LogLine line);

private:
    struct Module {
        std::uint32_t handle = 0;
        std::size_t registrations = 0;
    };

    std::vector<LogLine> m_lines;
    std::map<std::string, Module> m_modules;
};

// The process's one log.
CapturedLog& capturedLog();

} // namespace fake
