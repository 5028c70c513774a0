#include "platform_linux/ebtables/tool.hpp"

#include "platform_linux/ebtables/line_parser.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace ebtables
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t maxOutput = 64U << 20;
constexpr std::size_t maxErrors = 1U << 20;

class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    int get() const { return m_fd; }
    void reset(int fd = -1)
    {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd;
};

// A memory file with the text, rewound: the child sees its end, whatever becomes of us.
Descriptor memoryFile(std::string_view text)
{
    Descriptor file(memfd_create("ebtables-input", MFD_CLOEXEC));
    while (file.get() >= 0 && !text.empty()) {
        const ssize_t written = write(file.get(), text.data(), text.size());
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            file.reset();
    }
    if (file.get() >= 0 && lseek(file.get(), 0, SEEK_SET) != 0)
        file.reset();
    return file;
}

struct Pipe {
    Descriptor read;
    Descriptor write;
    bool make()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        read.reset(ends[0]);
        write.reset(ends[1]);
        return fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
    }
};

// Reads what is there; closes the descriptor at the end. What exceeds the limit is read and thrown away.
void drain(Descriptor& from, std::string& to, std::size_t limit)
{
    std::array<char, 65536> buffer;
    while (from.get() >= 0) {
        const ssize_t got = read(from.get(), buffer.data(), buffer.size());
        if (got > 0)
            to.append(buffer.data(), std::min(static_cast<std::size_t>(got), limit - std::min(limit, to.size())));
        else if (got == 0 || (errno != EAGAIN && errno != EINTR))
            from.reset();
        else if (errno == EAGAIN)
            return;
    }
}

// The attributes and file actions of posix_spawn, released at the end.
class SpawnPlan
{
public:
    SpawnPlan(int input, int output, int errors, int keepOpen)
    {
        posix_spawnattr_init(&m_attributes);
        posix_spawn_file_actions_init(&m_actions);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setsigdefault(&m_attributes, &all);
        posix_spawnattr_setpgroup(&m_attributes, 0); // a terminal's Ctrl-C is for us, not for the child
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_adddup2(&m_actions, input, 0);
        posix_spawn_file_actions_adddup2(&m_actions, output, 1);
        posix_spawn_file_actions_adddup2(&m_actions, errors, 2);
        if (keepOpen > 2)
            posix_spawn_file_actions_adddup2(&m_actions, keepOpen, 3);
        posix_spawn_file_actions_addclosefrom_np(&m_actions, keepOpen > 2 ? 4 : 3);
    }
    ~SpawnPlan()
    {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    int spawn(pid_t& child, const std::string& path, const std::vector<std::string>& arguments) const
    {
        std::vector<char*> argv{const_cast<char*>(path.c_str())};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        char pathVariable[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
        char locale[] = "LC_ALL=C";
        char* environment[] = {pathVariable, locale, nullptr};
        return posix_spawn(&child, path.c_str(), &m_actions, &m_attributes, argv.data(), environment);
    }

private:
    posix_spawnattr_t m_attributes;
    posix_spawn_file_actions_t m_actions;
};

std::string notStarted(const std::string& path, int error)
{
    std::string hint;
    if (error == ENOENT)
        hint = "; install the package ebtables";
    else if (error == EACCES)
        hint = "; make it executable";
    else if (error == EAGAIN || error == ENOMEM)
        hint = "; free memory or raise the limit of processes";
    return "cannot start " + path + ": " + std::strerror(error) + hint;
}

// Waits for the child, reading its output. Returns false when it had to be killed: result.end says why.
void attend(int process, Pipe& output, Pipe& errors, const RunLimits& limits, RunResult& result)
{
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (const int stop : {SIGINT, SIGTERM, SIGQUIT})
        sigdelset(&mask, stop);

    Clock::time_point deadline = Clock::now() + limits.time;
    bool stopped = false;
    for (;;) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            syscall(SYS_pidfd_send_signal, process, SIGKILL, nullptr, 0);
            result.end = stopped ? RunResult::End::Stopped : RunResult::End::TimedOut;
            return;
        }
        const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        const timespec wait{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
        pollfd wanted[] = {{process, POLLIN, 0}, {output.read.get(), POLLIN, 0}, {errors.read.get(), POLLIN, 0}};
        const int ready = ppoll(wanted, 3, &wait, &mask);
        if (ready < 0 && errno == EINTR && !stopped) {
            stopped = true;
            deadline = std::min(deadline, Clock::now() + limits.afterStop);
        }
        drain(output.read, result.output, maxOutput);
        drain(errors.read, result.errors, maxErrors);
        if (ready > 0 && wanted[0].revents != 0) {
            result.end = RunResult::End::Exited;
            return;
        }
    }
}

} // namespace

RunResult run(const std::string& path, const std::vector<std::string>& arguments, std::string_view input,
              const RunLimits& limits)
{
    RunResult result;
    const auto fail = [&](int error) {
        result.reason = notStarted(path, error);
        return result;
    };
    const Descriptor stdIn = memoryFile(input);
    Pipe output;
    Pipe errors;
    if (stdIn.get() < 0 || !output.make() || !errors.make())
        return fail(errno);

    pid_t child = -1;
    {
        const SpawnPlan plan(stdIn.get(), output.write.get(), errors.write.get(), limits.keepOpen);
        if (const int error = plan.spawn(child, path, arguments); error != 0)
            return fail(error);
    }
    output.write.reset();
    errors.write.reset();

    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (process.get() >= 0) {
        attend(process.get(), output, errors, limits, result);
    } else {
        kill(child, SIGKILL); // never seen: we own the child, only descriptors can be short
        result.end = RunResult::End::Killed;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    drain(output.read, result.output, maxOutput);
    drain(errors.read, result.errors, maxErrors);

    switch (result.end) {
    case RunResult::End::TimedOut:
        result.reason = path + " did not end within " + std::to_string(limits.time.count()) + " ms and was killed";
        break;
    case RunResult::End::Stopped:
        result.reason = path + " was killed because moatkeeper is to stop";
        break;
    default:
        if (WIFSIGNALED(status)) {
            result.end = RunResult::End::Killed;
            result.reason = path + " was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
                            strsignal(WTERMSIG(status)) + "); is there memory enough?";
        } else {
            result.exitCode = WEXITSTATUS(status);
        }
    }
    return result;
}

ToolVersion detect(const ToolPaths& paths, const RunLimits& limits)
{
    ToolVersion version;
    const RunResult result = run(paths.ebtables, {"--version"}, {}, limits);
    version.text = printable(std::string_view(result.output).substr(0, result.output.find('\n')));
    if (result.end != RunResult::End::Exited)
        version.reason = result.reason;
    else if (version.text.find("(nf_tables)") != std::string::npos)
        version.variant = Variant::NfTables;
    else if (result.exitCode == 0 && version.text.find("ebtables") != std::string::npos)
        version.variant = Variant::Legacy;
    else
        version.reason = paths.ebtables + " --version ended with status " + std::to_string(result.exitCode) +
                         " and names no variant: \"" + printable(result.output + result.errors) + '"';
    return version;
}

} // namespace ebtables
