#include "platform_linux/log_writer.hpp"

#include "text/one_line.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace logging
{

namespace
{

std::string g_programName;    // syslog(3) keeps a pointer to it
bool g_journalStream = false; // standard error leads to the journal

constexpr int patienceMs = 1000;
unsigned long g_lost = 0; // lines that standard error did not take, since the last one that it did
bool g_midLine = false;   // it took a part of the last one

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
        out += text::escaped(static_cast<char>(c));
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

std::string asLine(Severity severity, const std::string& formattedLine)
{
    const std::string prefix = g_journalStream ? '<' + std::to_string(static_cast<int>(severity)) + '>' : "";
    return prefix + formattedLine + '\n';
}

// Whoever reads the other end of a pipe may rest, or have gone: the daemon waits for a moment, and after that no more
// until a line gets through.
bool writeAll(std::string_view text)
{
    g_midLine = false;
    while (!text.empty()) {
        pollfd ready{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
        const int count = poll(&ready, 1, g_lost == 0 ? patienceMs : 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        // A pipe that is ready has room for so much.
        const ssize_t written = ::write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
        g_midLine = true;
    }
    return true;
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
    if (target == Target::syslog) {
        syslog(static_cast<int>(severity), "%s", formattedLine.c_str());
        return;
    }
    try {
        if (g_lost > 0) {
            const std::string told =
                formatLine("log", 10, std::to_string(g_lost) + " lost: standard error took no line");
            if (!writeAll((g_midLine ? "\n" : "") + asLine(Severity::warning, told))) {
                ++g_lost;
                return;
            }
            g_lost = 0;
        }
        if (!writeAll(asLine(severity, formattedLine)))
            ++g_lost;
    } catch (...) { // out of memory
        ++g_lost;
    }
}

} // namespace logging
