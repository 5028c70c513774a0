#include "subprocess/run.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

using subprocess::RunLimits;
using subprocess::RunResult;
using End = subprocess::RunResult::End;
using namespace std::chrono_literals;

namespace
{

class Subprocess : public testing::Test
{
protected:
    RunResult runScript(const std::string& script, const std::string& input = "", const RunLimits& limits = {},
                        const std::vector<std::string>& arguments = {}) const
    {
        m_scratch.write("program", "#!/bin/sh\n" + script + "\n", 0755);
        return subprocess::run(m_program, arguments, input, limits);
    }

    ScratchFolder m_scratch;
    const std::string m_program = m_scratch.path("program");
};

TEST_F(Subprocess, InputOutputAndStatus)
{
    const RunResult result = runScript("cat; echo words >&2; exit 3", "one\ntwo\n");
    EXPECT_EQ(result.end, End::Exited);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.output, "one\ntwo\n");
    EXPECT_EQ(result.errors, "words\n");
    EXPECT_EQ(result.reason, "");
}

TEST_F(Subprocess, ArgumentsAreNoShellWords)
{
    const RunResult result =
        runScript(R"(for word in "$@"; do echo "[$word]"; done)", "", {}, {"a b", "", "$(id);*", "\"quoted\""});
    EXPECT_EQ(result.output, "[a b]\n[]\n[$(id);*]\n[\"quoted\"]\n");
}

TEST_F(Subprocess, ACleanEnvironment)
{
    setenv("MOATKEEPER_TEST_SECRET", "x", 1);
    const RunResult result = runScript("env | grep -v -e ^PWD= -e ^_= -e ^SHLVL= | sort");
    unsetenv("MOATKEEPER_TEST_SECRET");
    EXPECT_EQ(result.output, "LC_ALL=C\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\n");
}

TEST_F(Subprocess, OnlyTheDescriptorThatIsToStayOpenIsInherited)
{
    const int ours = open("/dev/null", O_RDONLY); // without O_CLOEXEC
    const int kept = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::vector<std::string> list{"/proc/self/fd"}; // ls has this folder open, too
    RunLimits limits;
    EXPECT_EQ(subprocess::run("/bin/ls", list, "").output, "0\n1\n2\n3\n");
    limits.keepOpen = kept;
    EXPECT_EQ(subprocess::run("/bin/ls", list, "", limits).output, "0\n1\n2\n3\n4\n");
    close(ours);
    close(kept);
}

TEST_F(Subprocess, SignalsAreAsForANewProcess)
{
    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, &before);
    std::signal(SIGPIPE, SIG_IGN);
    for (const char* name : {"TERM", "PIPE"}) {
        const RunResult result = runScript("kill -" + std::string(name) + " $$; echo alive");
        EXPECT_EQ(result.end, End::Killed) << name;
        EXPECT_EQ(result.output, "") << name;
    }
    std::signal(SIGPIPE, SIG_DFL);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(Subprocess, MuchInputAndOutputAtTheSameTime)
{
    const std::string megabytes(20 << 20, 'x');
    const RunResult result = runScript("tee /dev/stderr", megabytes);
    EXPECT_EQ(result.end, End::Exited);
    EXPECT_EQ(result.output.size(), megabytes.size());
    EXPECT_EQ(result.errors.size(), 1U << 20) << "what exceeds the limit is thrown away";
}

TEST_F(Subprocess, InputThatNobodyReadsIsNoHindrance)
{
    const RunResult result = runScript("exit 0", std::string(1 << 20, 'x'));
    EXPECT_EQ(result.end, End::Exited);
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(Subprocess, AProgramThatLeavesItsOutputToAnotherIsNotWaitedForLonger)
{
    const auto begin = std::chrono::steady_clock::now();
    const RunResult result = runScript("echo done; sleep 20 & echo $!");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_EQ(result.end, End::Exited);
    ASSERT_THAT(result.output, testing::StartsWith("done\n"));
    kill(std::stoi(result.output.substr(5)), SIGKILL);
}

TEST_F(Subprocess, AMissingProgramIsNamed)
{
    const RunResult result = subprocess::run("/no/such/program", {}, "");
    EXPECT_EQ(result.end, End::NotStarted);
    EXPECT_EQ(result.reason, "cannot start /no/such/program: No such file or directory");
}

TEST_F(Subprocess, AProgramThatIsNotExecutableIsNamed)
{
    m_scratch.write("program", "#!/bin/sh\n", 0644);
    const RunResult result = subprocess::run(m_program, {}, "");
    EXPECT_EQ(result.end, End::NotStarted);
    EXPECT_EQ(result.reason, "cannot start " + m_program + ": Permission denied; make it executable");
}

TEST_F(Subprocess, WhatIsNoProgramIsNamed)
{
    m_scratch.write("program",
                    std::string("\x7f"
                                "ELF, but not really"),
                    0755);
    const RunResult result = subprocess::run(m_program, {}, "");
    EXPECT_EQ(result.end, End::NotStarted);
    EXPECT_EQ(result.reason, "cannot start " + m_program + ": Exec format error");
}

TEST_F(Subprocess, WithoutDescriptorsNothingIsStarted)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int highest = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(highest);
    for (int more = 0; more < 6; ++more) { // enough for the input, for one pipe, ...
        const rlimit few{static_cast<rlim_t>(highest + more), before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        const RunResult result = subprocess::run("/bin/true", {}, "input");
        setrlimit(RLIMIT_NOFILE, &before);
        if (more < 5) {
            EXPECT_EQ(result.end, End::NotStarted) << more;
            EXPECT_EQ(result.reason, "cannot start /bin/true: Too many open files") << more;
        }
    }
    EXPECT_EQ(subprocess::run("/bin/true", {}, "input").end, End::Exited) << "nothing was left open";
    const int after = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(after, highest);
    close(after);
}

TEST_F(Subprocess, DeathByASignalIsNamed)
{
    const RunResult result = runScript("echo words >&2; kill -SEGV $$");
    EXPECT_EQ(result.end, End::Killed);
    EXPECT_EQ(result.reason, m_program + " was killed by signal 11 (Segmentation fault); is there memory enough?");
    EXPECT_EQ(result.errors, "words\n");
}

TEST_F(Subprocess, AProgramThatHangsIsKilled)
{
    RunLimits limits;
    limits.time = 50ms;
    const auto begin = std::chrono::steady_clock::now();
    const RunResult result = runScript("echo begun; exec sleep 1000", "", limits);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_EQ(result.end, End::TimedOut);
    EXPECT_EQ(result.reason, m_program + " did not end within 50 ms and was killed");
}

TEST_F(Subprocess, AStopSignalShortensTheWait)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    sigaction(SIGTERM, &action, &before);
    sigset_t stop;
    sigset_t mask;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, &mask); // as the daemon does
    RunLimits limits;
    limits.afterStop = 50ms;
    const RunResult hung = runScript("kill -TERM $PPID; exec sleep 1000", "", limits);
    const RunResult quick = runScript("kill -TERM $PPID; echo well", "", limits);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    sigaction(SIGTERM, &before, nullptr);
    EXPECT_EQ(hung.end, End::Stopped);
    EXPECT_EQ(hung.reason, m_program + " was killed because a stop signal came");
    EXPECT_EQ(quick.end, End::Exited) << "it may finish";
    EXPECT_EQ(quick.output, "well\n");
}

} // namespace
