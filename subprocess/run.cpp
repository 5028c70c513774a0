#include "subprocess/run.hpp"

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
#include <utility>

namespace subprocess
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
    Descriptor file(memfd_create("input", MFD_CLOEXEC));
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

const char* hintFor(int error)
{
    switch (error) {
    case EACCES:
        return "; make it executable";
    case EFBIG:
        return "; raise the limit of file sizes";
    case EAGAIN:
    case ENOMEM:
        return "; free memory or raise the limit of processes";
    default:
        return "";
    }
}

// A child process with its standard streams. It has ended, or was never started, when this is destroyed.
class Child
{
public:
    Child(const std::string& path, const std::vector<std::string>& arguments, std::string_view input, int keepOpen)
        : m_path(path)
    {
        const Descriptor stdIn = memoryFile(input);
        if (stdIn.get() < 0 || !m_output.make() || !m_errors.make()) {
            notStarted(errno);
            return;
        }
        {
            const SpawnPlan plan(stdIn.get(), m_output.write.get(), m_errors.write.get(), keepOpen);
            if (const int error = plan.spawn(m_pid, path, arguments); error != 0) {
                notStarted(error);
                return;
            }
        }
        m_output.write.reset();
        m_errors.write.reset();
        m_running = true;
        m_process.reset(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
        if (m_process.get() < 0) // never seen: the child is ours, only descriptors can be short
            stop(RunResult::End::Killed, " was killed: it could not be watched");
    }
    Child(Child&&) = delete;
    ~Child()
    {
        if (m_running)
            stop(RunResult::End::Stopped, "");
    }

    bool running() const { return m_running; }

    // What to wait for: its end, and anything that it writes.
    std::array<pollfd, 3> wanted() const
    {
        return {{{m_process.get(), POLLIN, 0}, {m_output.read.get(), POLLIN, 0}, {m_errors.read.get(), POLLIN, 0}}};
    }

    // Takes in what it wrote, and its end when it has ended.
    void attend(bool ended)
    {
        drain(m_output.read, m_result.output, maxOutput);
        drain(m_errors.read, m_result.errors, maxErrors);
        if (ended)
            reap();
    }

    // Kills it; how and why are for the result.
    void stop(RunResult::End how, const std::string& why)
    {
        kill(m_pid, SIGKILL);
        reap();
        m_result.end = how;
        m_result.reason = m_path + why;
    }

    RunResult takeResult() { return std::move(m_result); }

private:
    void reap()
    {
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_running = false;
        attend(false);
        if (WIFSIGNALED(status)) {
            m_result.end = RunResult::End::Killed;
            m_result.reason = m_path + " was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
                              strsignal(WTERMSIG(status)) + "); is there memory enough?";
        } else {
            m_result.end = RunResult::End::Exited;
            m_result.exitCode = WEXITSTATUS(status);
        }
    }

    void notStarted(int error)
    {
        m_result.error = error;
        m_result.reason = "cannot start " + m_path + ": " + std::strerror(error) + hintFor(error);
    }

    const std::string& m_path;
    pid_t m_pid = -1;
    bool m_running = false;
    Descriptor m_process; // a pidfd
    Pipe m_output;
    Pipe m_errors;
    RunResult m_result;
};

// Waits for the child, reading its output. When it does not end in time, it is killed.
void attend(Child& child, const RunLimits& limits)
{
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (const int stop : {SIGINT, SIGTERM, SIGQUIT})
        sigdelset(&mask, stop);

    Clock::time_point deadline = Clock::now() + limits.time;
    bool stopped = false;
    while (child.running()) {
        const auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            if (stopped)
                child.stop(RunResult::End::Stopped, " was killed because a stop signal came");
            else
                child.stop(RunResult::End::TimedOut,
                           " did not end within " + std::to_string(limits.time.count()) + " ms and was killed");
            return;
        }
        const auto whole = std::chrono::floor<std::chrono::seconds>(left);
        const timespec wait{static_cast<time_t>(whole.count()),
                            static_cast<long>(std::chrono::nanoseconds(left - whole).count())};
        std::array<pollfd, 3> wanted = child.wanted();
        const int ready = ppoll(wanted.data(), wanted.size(), &wait, &mask);
        if (ready < 0 && errno == EINTR && !stopped) {
            stopped = true;
            deadline = std::min(deadline, Clock::now() + limits.afterStop);
        }
        child.attend(ready > 0 && wanted[0].revents != 0);
    }
}

} // namespace

RunResult run(const std::string& path, const std::vector<std::string>& arguments, const std::string& input,
              const RunLimits& limits)
{
    Child child(path, arguments, input, limits.keepOpen);
    attend(child, limits);
    return child.takeResult();
}

} // namespace subprocess
