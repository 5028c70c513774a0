// The platform's log facility: modules with a trace level, four levels, and a printf-style formatter.
//
// Threading: every function may be called from the daemon's one thread only.
// Failure: logging never fails towards the caller and never throws; a line that cannot be written is lost.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Identifies a registered module in every later call. Plain value, nothing to release.
using ZOL_Sysloglevel_Module = std::uint32_t;

// Prepares the facility for this process. Call once, before anything else here.
// configuration: name of a platform configuration, "" for the default one.
// programPath: the program's own path; its last component names the process in syslog. Copied.
void ZOL_Sysloglevel_construct2(const char* configuration, const char* programPath);

// Registers a module by name (copied) and returns its handle. The same name always gives the same
// handle, so registering again costs a look-up and nothing else.
ZOL_Sysloglevel_Module ZOL_Sysloglevel_registerModul(const char* moduleName);

// Sets which trace lines of a module are written: a bit mask, 0 (the default) hides all of them.
// The module need not be registered yet.
void ZOL_Sysloglevel_changeTracelevel(const char* moduleName, int level);

// Where lines go: 0 to standard error, 1 to syslog.
void ZOL_Sysloglevel_set(int useSyslog);

// Write one line. label: the source unit; line: the stable number that identifies the message in that
// unit. Trace lines are hidden unless the module's trace level says otherwise.
void ZOL_Sysloglevel_trace(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text);
void ZOL_Sysloglevel_info(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text);
void ZOL_Sysloglevel_warning(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text);
void ZOL_Sysloglevel_error(ZOL_Sysloglevel_Module module, const char* label, int line, std::string_view text);

// Formats like printf into a string of any length; the compiler checks format against arguments.
[[gnu::format(printf, 1, 2)]] std::string VAStr(const char* format, ...);
