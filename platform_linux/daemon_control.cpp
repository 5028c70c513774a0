#include "platform/daemon_control.h"

#include "platform/sysloglevel.h"
#include "platform_linux/log_writer.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr const char* label = "daemonctl";

// Where the PID file is when nobody says otherwise. In the foreground none is written, so that any user can run the
// daemon there who may not write this folder.
constexpr std::string_view usualLocation = "/var/run";

// Ends the process. While somebody may be waiting at the terminal (a log in syslog already, but not yet
// detached) the reason is written there, too.
[[noreturn]] void fail(const ZOL_Daemon& daemon, int line, const std::string& text, bool alsoToTerminal = false)
{
    ZOL_Sysloglevel_error(ZOL_Sysloglevel_registerModul(daemon.name.c_str()), label, line, text);
    if (alsoToTerminal)
        logging::write(logging::Target::standardError, logging::Severity::error,
                       logging::formatLine(label, line, text));
    std::exit(1);
}

void warn(const ZOL_Daemon& daemon, int line, const std::string& text)
{
    ZOL_Sysloglevel_warning(ZOL_Sysloglevel_registerModul(daemon.name.c_str()), label, line, text);
}

std::optional<pid_t> readPidFile(const std::string& path)
{
    // O_NONBLOCK: whatever stands there under this name, opening it must not wait.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    std::array<char, 32> text{};
    const ssize_t length = read(fd, text.data(), text.size());
    close(fd);
    if (length <= 0)
        return std::nullopt;

    pid_t pid = 0;
    const char* end = text.data() + length;
    const auto [rest, error] = std::from_chars(text.data(), end, pid);
    if (error != std::errc{} || pid <= 0 || (rest != end && *rest != '\n'))
        return std::nullopt;
    return pid;
}

// Name and state of a process, as the kernel keeps them: "PID (name) state ...". The name may contain anything,
// the last bracket is the kernel's.
struct ProcessStatus {
    std::string name;
    char state = '?';
};

std::optional<ProcessStatus> processStatus(const std::string& pid)
{
    std::ifstream file("/proc/" + pid + "/stat");
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 2 >= text.size())
        return std::nullopt;
    return ProcessStatus{text.substr(open + 1, close - open - 1), text[close + 2]};
}

// True when the process runs and is an instance of this daemon other than ourselves.
bool isRunningInstance(pid_t pid, const std::string& daemonName)
{
    if (pid == getpid()) // our own number in a file that an earlier boot left behind
        return false;
    if (kill(pid, 0) != 0 && errno != EPERM)
        return false;

    const std::optional<ProcessStatus> own = processStatus("self");
    const std::optional<ProcessStatus> other = processStatus(std::to_string(pid));
    if (!own) // without /proc only the number can be judged
        return true;
    if (!other || other->state == 'Z' || other->state == 'X')
        return false;
    constexpr std::size_t kernelNameLength = 15;
    return other->name == own->name || other->name == daemonName.substr(0, kernelNameLength);
}

void requireWritableFolder(const ZOL_Daemon& daemon, bool alsoToTerminal = false)
{
    if (faccessat(AT_FDCWD, daemon.location.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        fail(daemon, 30,
             VAStr("PID file folder %s: %s; expected a folder that can be written", daemon.location.c_str(),
                   std::strerror(errno)),
             alsoToTerminal);
}

// Waits in the process that was started until its daemon reports, and ends it.
[[noreturn]] void leaveWhenReported(pid_t child, int pipeEnd)
{
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    char report = 0;
    ssize_t count = 0;
    do {
        count = read(pipeEnd, &report, 1);
    } while (count < 0 && errno == EINTR);
    _exit(count == 1 ? 0 : 1);
}

void redirectToNull(std::initializer_list<int> descriptors)
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0)
        return;
    for (const int fd : descriptors)
        dup2(null, fd);
    close(null);
}

} // namespace

void ZOL_Daemon_construct(ZOL_Daemon& daemon, const char* name, const char* location)
{
    daemon.name = name;
    daemon.location = location;

    // In full, because a daemonized process works in "/".
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::canonical(location, error);
    if (error)
        fail(daemon, 10,
             VAStr("PID file folder %s: %s; expected a folder that exists", location, error.message().c_str()));
    if (!std::filesystem::is_directory(folder, error))
        fail(daemon, 20, VAStr("PID file folder %s: not a folder", location));
    daemon.location = folder;
    if (location != usualLocation)
        requireWritableFolder(daemon);
    daemon.pidFile = daemon.location + "/" + daemon.name + ".pid";
}

bool ZOL_Daemon_occupiedPidFile(const ZOL_Daemon& daemon)
{
    const std::optional<pid_t> pid = readPidFile(daemon.pidFile);
    return pid && isRunningInstance(*pid, daemon.name);
}

void ZOL_Daemon_daemonize(ZOL_Daemon& daemon)
{
    requireWritableFolder(daemon, true); // while there is somebody to read it

    // Otherwise both processes would write what is buffered.
    std::cout.flush();
    std::fflush(nullptr);

    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        fail(daemon, 40, VAStr("Going into the background: pipe: %s", std::strerror(errno)), true);

    const pid_t child = fork();
    if (child < 0)
        fail(daemon, 50, VAStr("Going into the background: fork: %s", std::strerror(errno)), true);
    if (child > 0) {
        close(ends[1]);
        leaveWhenReported(child, ends[0]);
    }

    close(ends[0]);
    daemon.parentPipe = ends[1];
    setsid();
    // A second time: a process that leads no session never gets a controlling terminal.
    const pid_t grandchild = fork();
    if (grandchild < 0)
        fail(daemon, 60, VAStr("Going into the background: second fork: %s", std::strerror(errno)), true);
    if (grandchild > 0)
        _exit(0);

    if (chdir("/") != 0)
        fail(daemon, 70, VAStr("Going into the background: folder /: %s", std::strerror(errno)), true);
    umask(022);
    redirectToNull({STDIN_FILENO, STDOUT_FILENO}); // standard error follows once the PID file is written
}

void ZOL_Daemon_createPidFile(ZOL_Daemon& daemon)
{
    const bool watched = daemon.parentPipe >= 0;
    const auto failWith = [&](int line, const char* step) {
        fail(daemon, line,
             VAStr("PID file %s: %s: %s; expected a folder that can be written", daemon.pidFile.c_str(), step,
                   std::strerror(errno)),
             watched);
    };

    std::string temporary = daemon.pidFile + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        failWith(80, "create");

    const std::string content = std::to_string(getpid()) + "\n";
    const bool written =
        write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) && fchmod(fd, 0644) == 0;
    if (close(fd) != 0 || !written) {
        unlink(temporary.c_str());
        failWith(90, "write");
    }

    // Of two instances that start at the same time one gets the name.
    int result = renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, daemon.pidFile.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) // a file system that cannot do this
        result = std::rename(temporary.c_str(), daemon.pidFile.c_str());
    if (result != 0) {
        const int reason = errno;
        unlink(temporary.c_str());
        errno = reason;
        failWith(100, "rename");
    }

    if (watched) {
        redirectToNull({STDERR_FILENO});
        const char done = 1;
        if (write(daemon.parentPipe, &done, 1) != 1)
            warn(daemon, 110, VAStr("The waiting parent process is gone: %s", std::strerror(errno)));
        close(daemon.parentPipe);
        daemon.parentPipe = -1;
    }
}

void ZOL_Daemon_deletePidFile(const ZOL_Daemon& daemon)
{
    if (ZOL_Daemon_occupiedPidFile(daemon))
        return;
    if (unlink(daemon.pidFile.c_str()) != 0 && errno != ENOENT)
        warn(daemon, 120, VAStr("PID file %s: remove: %s", daemon.pidFile.c_str(), std::strerror(errno)));
}
