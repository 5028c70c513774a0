#include "platform/sysloglevel.h"
#include "platform_linux/log_writer.hpp"
#include "tests/unit/captured_descriptor.hpp"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::string_literals;

namespace
{

class LogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("JOURNAL_STREAM");
        ZOL_Sysloglevel_construct2("", "/usr/sbin/moatkeeper");
        ZOL_Sysloglevel_set(0);
    }
    void TearDown() override { SetUp(); }

    const ZOL_Sysloglevel_Module m_module = ZOL_Sysloglevel_registerModul("moatkeeper");
};

std::string journalStreamName(int fd)
{
    struct stat status {
    };
    fstat(fd, &status);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

TEST_F(LogTest, LineHasLabelNumberAndText)
{
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_info(m_module, "main", 149, "run: exiting");
    ZOL_Sysloglevel_warning(m_module, "moatkeeper", 7, "a warning");
    ZOL_Sysloglevel_error(m_module, "policys", 8, "an error");
    EXPECT_EQ(standardError.text(), "main:149: run: exiting\nmoatkeeper:7: a warning\npolicys:8: an error\n");
}

TEST_F(LogTest, OneTrailingNewlineMakesNoEmptyLine)
{
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_error(m_module, "main", 104, "Another process is already running. Exiting...\n");
    ZOL_Sysloglevel_error(m_module, "main", 1, "two\n\n");
    ZOL_Sysloglevel_error(m_module, "main", 2, "");
    EXPECT_EQ(standardError.text(),
              "main:104: Another process is already running. Exiting...\nmain:1: two\\n\nmain:2: \n");
}

TEST_F(LogTest, ControlCharactersInValuesCannotForgeLines)
{
    EXPECT_EQ(logging::formatLine("x", 1, "a\nmain:149: run: exiting"), "x:1: a\\nmain:149: run: exiting");
    EXPECT_EQ(logging::formatLine("x", 1, "\x1b[2J\r\t\0\x7f"s), "x:1: \\x1b[2J\\r\\t\\x00\\x7f");
    EXPECT_EQ(logging::formatLine("x", 1, "\xc2\x9b[2J"), "x:1: \\xc2\\x9b[2J"); // the one-character form of ESC [
}

TEST_F(LogTest, OtherTextIsLeftAsItIs)
{
    EXPECT_EQ(logging::formatLine("x", 1, "Tür 100% \\n \"%s\" \xc2\xa0 \xc2"),
              "x:1: Tür 100% \\n \"%s\" \xc2\xa0 \xc2");
}

TEST_F(LogTest, APipeThatNobodyReadsHoldsNobodyUpAndWhatIsLostIsTold)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    const int saved = dup(STDERR_FILENO);
    const std::string block(4096, 'x');
    while (write(ends[1], block.data(), block.size()) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0); // blocking, as a shell makes it
    dup2(ends[1], STDERR_FILENO);
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        ZOL_Sysloglevel_error(m_module, "main", i, "lost");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    std::string content(1 << 20, '\0');
    while (read(ends[0], content.data(), content.size()) > 0) {
    }
    ZOL_Sysloglevel_error(m_module, "main", 1, "again");
    ZOL_Sysloglevel_error(m_module, "main", 2, std::string(10'000, 'y'));
    dup2(saved, STDERR_FILENO);
    content.resize(static_cast<std::size_t>(read(ends[0], content.data(), content.size())));
    EXPECT_EQ(content, "log:10: 100 lost: standard error took no line\nmain:1: again\nmain:2: " +
                           std::string(10'000, 'y') + "\n");
    for (const int end : {saved, ends[0], ends[1]})
        close(end);
}

TEST_F(LogTest, TraceLinesFollowTheModulesLevel)
{
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_trace(m_module, "moatkeeper", 1, "hidden");
    ZOL_Sysloglevel_changeTracelevel("moatkeeper", 1023);
    ZOL_Sysloglevel_trace(m_module, "moatkeeper", 2, "shown");
    ZOL_Sysloglevel_trace(ZOL_Sysloglevel_registerModul("another"), "x", 3, "hidden");
    ZOL_Sysloglevel_changeTracelevel("moatkeeper", 0);
    ZOL_Sysloglevel_trace(m_module, "moatkeeper", 4, "hidden");
    EXPECT_EQ(standardError.text(), "moatkeeper:2: shown\n");
}

TEST_F(LogTest, TraceLevelCanBeSetBeforeAModuleIsRegistered)
{
    ZOL_Sysloglevel_changeTracelevel("later", 1);
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_trace(ZOL_Sysloglevel_registerModul("later"), "x", 1, "shown");
    EXPECT_EQ(standardError.text(), "x:1: shown\n");
}

TEST_F(LogTest, RegisteringAgainGivesTheSameHandle)
{
    EXPECT_EQ(ZOL_Sysloglevel_registerModul("moatkeeper"), m_module);
    EXPECT_NE(ZOL_Sysloglevel_registerModul("one more"), m_module);
}

TEST_F(LogTest, LinesToTheJournalCarryTheSeverity)
{
    const CapturedDescriptor standardError(STDERR_FILENO);
    setenv("JOURNAL_STREAM", journalStreamName(STDERR_FILENO).c_str(), 1);
    ZOL_Sysloglevel_construct2("", "moatkeeper");
    ZOL_Sysloglevel_changeTracelevel("moatkeeper", 1);
    ZOL_Sysloglevel_trace(m_module, "x", 1, "t");
    ZOL_Sysloglevel_info(m_module, "x", 2, "i");
    ZOL_Sysloglevel_warning(m_module, "x", 3, "w");
    ZOL_Sysloglevel_error(m_module, "x", 4, "e");
    ZOL_Sysloglevel_changeTracelevel("moatkeeper", 0);
    EXPECT_EQ(standardError.text(), "<7>x:1: t\n<6>x:2: i\n<4>x:3: w\n<3>x:4: e\n");
}

TEST_F(LogTest, ARedirectedStandardErrorIsNoJournal)
{
    setenv("JOURNAL_STREAM", "1:1", 1);
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_construct2("", "moatkeeper");
    ZOL_Sysloglevel_info(m_module, "x", 2, "i");
    EXPECT_EQ(standardError.text(), "x:2: i\n");
}

TEST_F(LogTest, SyslogLinesStayOffStandardError)
{
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_set(1);
    ZOL_Sysloglevel_error(m_module, "x", 1, "a test of moatkeeper's logging");
    EXPECT_EQ(standardError.text(), "");
}

TEST_F(LogTest, LongLinesAreWrittenInFull)
{
    const std::string text(100'000, 'a');
    const CapturedDescriptor standardError(STDERR_FILENO);
    ZOL_Sysloglevel_info(m_module, "x", 1, text);
    EXPECT_EQ(standardError.text(), "x:1: " + text + "\n");
}

// A descriptor that is closed at start must not be handed to the next file opened.
TEST_F(LogTest, ClosedStandardDescriptorsAreOccupied)
{
    const pid_t child = fork();
    if (child == 0) {
        close(STDIN_FILENO);
        close(STDERR_FILENO);
        ZOL_Sysloglevel_construct2("", "moatkeeper");
        _exit(open("/dev/null", O_RDONLY) > STDERR_FILENO ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(VAStrTest, FormatsLikePrintf)
{
    EXPECT_EQ(VAStr("%s: Debug mode is set to %d!", "setDebugMode", 1), "setDebugMode: Debug mode is set to 1!");
    EXPECT_EQ(VAStr("%s", ""), "");
    EXPECT_EQ(VAStr("100%%"), "100%");
}

TEST(VAStrTest, AnyLength)
{
    for (const std::size_t length : {1U, 255U, 256U, 4095U, 4096U, 1'000'000U}) {
        const std::string value(length, 'v');
        EXPECT_EQ(VAStr("<%s>", value.c_str()), "<" + value + ">");
    }
}

} // namespace
