#include "platform/daemon_control.h"
#include "platform/sysloglevel.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

// A child process with a name of its own that waits until it is told to end.
class OtherProcess
{
public:
    explicit OtherProcess(const char* name)
    {
        int ready[2];
        if (pipe(ready) != 0)
            std::abort();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name);
            if (write(ready[1], "x", 1) != 1)
                _exit(1);
            for (;;)
                pause();
        }
        char c = 0;
        if (read(ready[0], &c, 1) != 1)
            std::abort();
        close(ready[0]);
        close(ready[1]);
    }
    ~OtherProcess() { reap(); }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // Ends it without collecting it: a zombie.
    void end() const
    {
        kill(m_pid, SIGKILL);
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT);
    }
    void reap()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = 0;
    }

private:
    pid_t m_pid = 0;
};

class DaemonControlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "daemon_control_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        ZOL_Sysloglevel_set(0);
        ZOL_Daemon_construct(m_daemon, "moatkeeper", m_folder.c_str());
    }
    void TearDown() override { fs::remove_all(m_folder); }

    void writeFile(const std::string& content) const { std::ofstream(m_folder / "moatkeeper.pid") << content; }
    std::string readFile() const
    {
        std::ostringstream content;
        content << std::ifstream(m_folder / "moatkeeper.pid").rdbuf();
        return content.str();
    }
    bool fileExists() const { return fs::exists(m_folder / "moatkeeper.pid"); }

    fs::path m_folder;
    ZOL_Daemon m_daemon;
};

using DaemonControlDeathTest = DaemonControlTest;

TEST_F(DaemonControlTest, TheFileIsNamedForTheDaemon)
{
    EXPECT_EQ(m_daemon.pidFile, (m_folder / "moatkeeper.pid").string());
    EXPECT_FALSE(fileExists());
}

TEST_F(DaemonControlTest, ARelativeFolderStaysTheSameFolder)
{
    const fs::path before = fs::current_path();
    fs::current_path(m_folder);
    ZOL_Daemon daemon;
    ZOL_Daemon_construct(daemon, "moatkeeper", ".");
    fs::current_path(before);
    EXPECT_EQ(daemon.pidFile, m_daemon.pidFile);
}

TEST_F(DaemonControlTest, WritesAndRemovesTheFile)
{
    ZOL_Daemon_createPidFile(m_daemon);
    EXPECT_EQ(readFile(), std::to_string(getpid()) + "\n");
    EXPECT_EQ(fs::status(m_daemon.pidFile).permissions(), fs::perms(0644));
    EXPECT_EQ(std::distance(fs::directory_iterator(m_folder), fs::directory_iterator()), 1) << "a temporary file stays";
    ZOL_Daemon_deletePidFile(m_daemon);
    EXPECT_FALSE(fileExists());
    ZOL_Daemon_deletePidFile(m_daemon); // no error
}

TEST_F(DaemonControlTest, OccupiedByARunningInstance)
{
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon)) << "no file";
    OtherProcess instance("moatkeeper");
    writeFile(std::to_string(instance.pid()) + "\n");
    EXPECT_TRUE(ZOL_Daemon_occupiedPidFile(m_daemon));
    writeFile(std::to_string(instance.pid())); // without newline, as others write it
    EXPECT_TRUE(ZOL_Daemon_occupiedPidFile(m_daemon));

    instance.end();
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon)) << "a process that ended and waits to be collected";
    instance.reap();
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon)) << "no process";
}

TEST_F(DaemonControlTest, TheNameOfTheProgramDoesNotMatter)
{
    const OtherProcess other("moat 2 (else");
    writeFile(std::to_string(other.pid()) + "\n");
    EXPECT_TRUE(ZOL_Daemon_occupiedPidFile(m_daemon));
}

TEST_F(DaemonControlTest, ANumberThatAYoungerProcessHasGotDoesNotCount)
{
    const OtherProcess other("moatkeeper");
    writeFile(std::to_string(other.pid()) + "\n");
    fs::last_write_time(m_daemon.pidFile, fs::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon));
    writeFile(std::to_string(getpid()) + "\n");
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon)) << "our own number";
}

TEST_F(DaemonControlTest, FilesWithoutANumberDoNotCount)
{
    const OtherProcess instance("moatkeeper");
    const std::string number = std::to_string(instance.pid());
    for (const std::string& content :
         {std::string(), std::string("\n"), std::string("0\n"), std::string("-1\n"), std::string("abc\n"),
          number + "x\n", " " + number + "\n", std::string("99999999999999999999\n"), std::string(5000, '1')}) {
        writeFile(content);
        EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon)) << content;
    }
}

TEST_F(DaemonControlTest, APipeInPlaceOfTheFileDoesNotBlock)
{
    ASSERT_EQ(mkfifo(m_daemon.pidFile.c_str(), 0600), 0);
    EXPECT_FALSE(ZOL_Daemon_occupiedPidFile(m_daemon));
}

TEST_F(DaemonControlTest, RemovingLeavesAnotherInstancesFileAlone)
{
    const OtherProcess instance("moatkeeper");
    writeFile(std::to_string(instance.pid()) + "\n");
    ZOL_Daemon_deletePidFile(m_daemon);
    EXPECT_TRUE(fileExists());
}

TEST_F(DaemonControlDeathTest, AFolderThatDoesNotExistIsNamed)
{
    ZOL_Daemon daemon;
    EXPECT_EXIT(ZOL_Daemon_construct(daemon, "moatkeeper", "/nowhere/at all"), testing::ExitedWithCode(1),
                "^daemonctl:10: PID file folder /nowhere/at all: No such file or directory; expected a folder that "
                "exists\n$");
}

TEST_F(DaemonControlDeathTest, AFileInPlaceOfTheFolderIsNamed)
{
    writeFile("");
    ZOL_Daemon daemon;
    EXPECT_EXIT(ZOL_Daemon_construct(daemon, "moatkeeper", m_daemon.pidFile.c_str()), testing::ExitedWithCode(1),
                "PID file folder .*/moatkeeper.pid: not a folder\n$");
}

TEST_F(DaemonControlDeathTest, AFolderThatTheUserCannotWriteIsNamed)
{
    constexpr uid_t ordinaryUser = 65534;
    const uid_t self = geteuid();
    if (self == 0 && (seteuid(ordinaryUser) != 0 || seteuid(self) != 0))
        GTEST_SKIP() << "root alone exists here, and may write every folder";
    fs::permissions(m_folder, fs::perms(0555));
    ZOL_Daemon daemon;
    const auto construct = [&] {
        if (self == 0 && setresuid(ordinaryUser, ordinaryUser, ordinaryUser) != 0)
            std::abort();
        prctl(PR_SET_DUMPABLE, 1); // the search for leaks at the end needs it
        ZOL_Daemon_construct(daemon, "moatkeeper", m_folder.c_str());
    };
    EXPECT_EXIT(construct(), testing::ExitedWithCode(1),
                "^daemonctl:30: PID file folder " + m_folder.string() +
                    ": Permission denied; expected a folder that can be written\n");
    fs::permissions(m_folder, fs::perms(0755));
}

TEST_F(DaemonControlDeathTest, AFolderThatIsGoneWhenTheFileIsWrittenIsNamed)
{
    fs::remove(m_folder);
    EXPECT_EXIT(ZOL_Daemon_createPidFile(m_daemon), testing::ExitedWithCode(1),
                "^daemonctl:80: PID file .*/moatkeeper.pid: create: No such file or directory; expected a folder that "
                "can be written\n$");
}

TEST_F(DaemonControlDeathTest, OfTwoThatStartTogetherOneGetsTheFile)
{
    writeFile("1\n"); // appeared since the occupancy test
    EXPECT_EXIT(ZOL_Daemon_createPidFile(m_daemon), testing::ExitedWithCode(1), "moatkeeper.pid: rename: File exists");
    EXPECT_EQ(readFile(), "1\n");
}

pid_t startInBackground(ZOL_Daemon& daemon, bool writesPidFile)
{
    const pid_t starter = fork();
    if (starter == 0) {
        ZOL_Daemon_daemonize(daemon);
        if (!writesPidFile)
            _exit(0);
        ZOL_Daemon_createPidFile(daemon);
        for (;;)
            pause();
    }
    return starter;
}

TEST_F(DaemonControlTest, TheStarterLeavesWhenTheFileIsWritten)
{
    const pid_t starter = startInBackground(m_daemon, true);
    int status = -1;
    ASSERT_EQ(waitpid(starter, &status, 0), starter);
    EXPECT_EQ(status, 0);

    const pid_t daemon = std::atoi(readFile().c_str()); // there at once, no waiting
    ASSERT_GT(daemon, 0);
    EXPECT_TRUE(ZOL_Daemon_occupiedPidFile(m_daemon));
    fs::last_write_time(m_daemon.pidFile, fs::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_TRUE(ZOL_Daemon_occupiedPidFile(m_daemon)) << "the clock was set forward";
    EXPECT_NE(daemon, starter);
    const pid_t session = getsid(daemon);
    EXPECT_NE(session, getsid(0)) << "a session of its own";
    EXPECT_NE(session, daemon) << "but not its leader, so it never gets a terminal";
    const fs::path proc = "/proc/" + std::to_string(daemon);
    EXPECT_EQ(fs::read_symlink(proc / "cwd"), "/");
    for (const char* fd : {"0", "1", "2"})
        EXPECT_EQ(fs::read_symlink(proc / "fd" / fd), "/dev/null");
    kill(daemon, SIGKILL);
}

TEST_F(DaemonControlTest, TheStarterFailsWhenTheDaemonEndsBefore)
{
    const pid_t starter = startInBackground(m_daemon, false);
    int status = -1;
    ASSERT_EQ(waitpid(starter, &status, 0), starter);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

} // namespace
