#include "platform_linux/log_writer.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

namespace logging
{

namespace
{

std::string g_programName;    // syslog(3) keeps a pointer to it
bool g_journalStream = false; // standard error leads to the journal

void appendEscaped(std::string& out, unsigned char c)
{
    switch (c) {
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    default:
        constexpr std::string_view digits = "0123456789abcdef";
        out += "\\x";
        out += digits[c >> 4];
        out += digits[c & 15];
    }
}

// The journal sets JOURNAL_STREAM to device and inode of the stream that it gave us; standard error may have
// been redirected since.
bool isJournalStream(int fd)
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {
    };
    if (stream == nullptr || fstat(fd, &status) != 0)
        return false;
    return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// A descriptor 0, 1 or 2 that is closed would be given to the next file or socket opened, and log lines
// would end up in it.
void occupyStandardDescriptors()
{
    for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = dup(fd)) {
        if (fd > STDERR_FILENO) {
            close(fd);
            return;
        }
    }
}

} // namespace

std::string formatLine(std::string_view label, int line, std::string_view text)
{
    if (text.ends_with('\n'))
        text.remove_suffix(1);

    std::string out;
    out.reserve(label.size() + text.size() + 16);
    out += label;
    out += ':';
    out += std::to_string(line);
    out += ": ";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c < 0x20 || c == 0x7f) {
            appendEscaped(out, c);
        } else if (c == 0xc2 && next >= 0x80 && next < 0xa0) { // U+0080 to U+009F in UTF-8: control characters, too
            appendEscaped(out, c);
            appendEscaped(out, next);
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

void prepare(std::string_view programName)
{
    occupyStandardDescriptors();
    g_programName = programName;
    g_journalStream = isJournalStream(STDERR_FILENO);
    openlog(g_programName.c_str(), LOG_PID, LOG_DAEMON);
}

void write(Target target, Severity severity, const std::string& formattedLine) noexcept
{
    const int level = static_cast<int>(severity);
    if (target == Target::syslog) {
        syslog(level, "%s", formattedLine.c_str());
        return;
    }

    std::array<char, 8> prefix{};
    const int prefixLength = g_journalStream ? std::snprintf(prefix.data(), prefix.size(), "<%d>", level) : 0;
    char newline = '\n';
    const std::array<iovec, 3> parts{{
        {prefix.data(), static_cast<std::size_t>(prefixLength)},
        {const_cast<char*>(formattedLine.data()), formattedLine.size()},
        {&newline, 1},
    }};
    while (writev(STDERR_FILENO, parts.data(), static_cast<int>(parts.size())) < 0 && errno == EINTR) {
    }
}

} // namespace logging
