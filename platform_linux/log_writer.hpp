// Puts one log line where it belongs: standard error or syslog. Shared by the log facility, the assertion
// hook and the daemon control.
//
// Threading: the daemon's one thread. Failure: a line that standard error does not take within a second is lost; how
// many were is told as soon as it takes one again.
#pragma once

#include <string>
#include <string_view>

namespace logging
{

// The values are those of syslog(3).
enum class Severity { error = 3, warning = 4, info = 6, debug = 7 };

enum class Target { standardError, syslog };

// "label:line: text". One newline at the end of text is dropped; every other control character is written as
// an escape sequence, so that no value can end the line or steer a terminal.
std::string formatLine(std::string_view label, int line, std::string_view text);

// Prepares both targets. programName names the process in syslog; copied. Standard error may be a stream of
// the journal, which then gets the severity in front of each line.
void prepare(std::string_view programName);

// Writes a formatted line with a single call (a very long one with several), so that lines of several processes do not
// mix.
void write(Target target, Severity severity, const std::string& formattedLine) noexcept;

} // namespace logging
