#include "platform/daemon_control.h"

#include "platform/sysloglevel.h"
#include "platform_linux/log_writer.hpp"
#include "text/small_file.hpp"

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr const char* daemonLabel = "daemonctl";

// Where the PID file is when nobody says otherwise. In the foreground none is written, so that any user can run the
// daemon there who may not write this folder.
constexpr std::string_view usualLocation = "/var/run";

// Ends the process. While somebody may be waiting at the terminal (a log in syslog already, but not yet
// detached) the reason is written there, too.
[[noreturn]] void fail(const ZOL_Daemon& daemon, int line, const std::string& text, bool alsoToTerminal = false)
{
    ZOL_Sysloglevel_error(ZOL_Sysloglevel_registerModul(daemon.name.c_str()), daemonLabel, line, text);
    if (alsoToTerminal)
        logging::write(logging::Target::standardError, logging::Severity::error,
                       logging::formatLine(daemonLabel, line, text));
    std::exit(1);
}

void warn(const ZOL_Daemon& daemon, int line, const std::string& text)
{
    ZOL_Sysloglevel_warning(ZOL_Sysloglevel_registerModul(daemon.name.c_str()), daemonLabel, line, text);
}

// What stands in a PID file, and whether its writer still holds it.
struct PidFile {
    pid_t pid = 0;
    timespec written{};
    bool locked = false;
};

std::optional<PidFile> readPidFile(const std::string& path)
{
    // O_NONBLOCK: whatever stands there under this name, opening it must not wait.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    std::array<char, 32> text{};
    struct stat status {
    };
    const ssize_t length = fstat(fd, &status) == 0 ? read(fd, text.data(), text.size()) : -1;
    const bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    if (length <= 0)
        return std::nullopt;

    pid_t pid = 0;
    const char* end = text.data() + length;
    const auto [rest, error] = std::from_chars(text.data(), end, pid);
    if (error != std::errc{} || pid <= 0 || (rest != end && *rest != '\n'))
        return std::nullopt;
    return PidFile{.pid = pid, .written = status.st_mtim, .locked = locked};
}

// State and age of a process, as the kernel keeps them: "PID (name) state ...". The name may contain anything, the last
// bracket is the kernel's.
struct ProcessStatus {
    char state = '?';
    std::chrono::duration<double> age{0};
};

std::optional<ProcessStatus> processStatus(pid_t pid)
{
    const std::string content = text::readSmallFile("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t close = content.rfind(')');
    if (close == std::string::npos)
        return std::nullopt;
    ProcessStatus status;
    unsigned long long startTicks = 0; // since the boot
    timespec now{};
    // The fields from the third, the state, to the 22nd.
    if (std::sscanf(content.c_str() + close + 1,
                    " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu", &status.state,
                    &startTicks) != 2 ||
        clock_gettime(CLOCK_BOOTTIME, &now) != 0)
        return std::nullopt;
    const double start = static_cast<double>(startTicks) / static_cast<double>(sysconf(_SC_CLK_TCK));
    status.age = std::chrono::duration<double>(static_cast<double>(now.tv_sec) - start);
    return status;
}

// Whether the process cannot have written the file: it is younger. In doubt it is not, by a second or two.
bool startedAfter(const ProcessStatus& process, const timespec& written)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return process.age + std::chrono::seconds(2) < std::chrono::seconds(now.tv_sec - written.tv_sec);
}

// True when the process that the file names runs and is another than ourselves. After a power cut its number may be any
// program's; that one started after the file was written. Where the clock has been set since, this tells nothing, but
// a writer that still runs holds the lock.
bool isOccupied(const PidFile& file)
{
    if (file.pid == getpid()) // our own number in a file that an earlier boot left behind
        return false;
    if (kill(file.pid, 0) != 0 && errno != EPERM)
        return false;
    const std::optional<ProcessStatus> process = processStatus(file.pid);
    if (!process) // gone just now; without /proc only the number can be judged
        return access("/proc/self/stat", F_OK) != 0;
    if (process->state == 'Z' || process->state == 'X')
        return false;
    return file.locked || !startedAfter(*process, file.written);
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
    const std::optional<PidFile> file = readPidFile(daemon.pidFile);
    return file && isOccupied(*file);
}

void ZOL_Daemon_daemonize(ZOL_Daemon& daemon)
{
    requireWritableFolder(daemon, true); // while there is somebody to read it

    // Otherwise both processes would write what is buffered.
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
    const int fd = mkostemp(temporary.data(), O_CLOEXEC); // stays open, for the lock
    if (fd < 0)
        failWith(80, "create");

    const std::string content = std::to_string(getpid()) + "\n";
    const bool written =
        write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) && fchmod(fd, 0644) == 0;
    if (!written) {
        unlink(temporary.c_str());
        failWith(90, "write");
    }

    flock(fd, LOCK_EX | LOCK_NB); // a file system without locks leaves the time of start to judge by

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
