#include "platform_linux/queue/record_file.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using ebtables::RecordFile;
using testing::EndsWith;
using testing::HasSubstr;

namespace
{

namespace fs = std::filesystem;
constexpr uid_t somebodyElse = 65534;

class RecordFileTest : public testing::Test
{
protected:
    std::string path() const { return m_record.path(); }
    mode_t modeOf(const std::string& name) const
    {
        struct stat status {
        };
        return stat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    // Reading gives nothing, and this reason.
    void expectRefused(const std::string& reason) const
    {
        std::string said;
        EXPECT_FALSE(m_record.read(said));
        EXPECT_THAT(said, HasSubstr(reason));
    }

    ScratchFolder m_scratch;
    std::string m_folder = m_scratch.path("record");
    RecordFile m_record{m_folder};
};

TEST_F(RecordFileTest, TheFolderIsMadeForItsOwnerOnly)
{
    EXPECT_EQ(m_record.prepare(), "");
    EXPECT_EQ(modeOf(m_folder), 0700U);
    EXPECT_EQ(m_record.prepare(), "") << "it may be there";
}

TEST_F(RecordFileTest, PipesInItsPlaceAreReplaced)
{
    ASSERT_EQ(m_record.prepare(), "");
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((path() + ".new").c_str(), 0600), 0);
    expectRefused("is no file of ours");
    EXPECT_EQ(m_record.write("x"), "");
    std::string reason;
    EXPECT_EQ(m_record.read(reason), "x");
}

TEST_F(RecordFileTest, ALockThatIsNoFileIsRefused)
{
    ASSERT_EQ(m_record.prepare(), "");
    ASSERT_EQ(mkfifo((m_folder + "/lock").c_str(), 0600), 0);
    EXPECT_THAT(m_record.prepare(), EndsWith("/lock is no file of ours"));
}

TEST_F(RecordFileTest, AFolderThatOthersCanReadIsClosedToThem)
{
    fs::create_directory(m_folder);
    chmod(m_folder.c_str(), 0755);
    EXPECT_EQ(m_record.prepare(), "");
    EXPECT_EQ(modeOf(m_folder), 0700U);
}

TEST_F(RecordFileTest, AFolderThatOthersCanWriteIsNotUsed)
{
    fs::create_directory(m_folder);
    chmod(m_folder.c_str(), 0770);
    EXPECT_THAT(m_record.prepare(), EndsWith("record can be written by others"));
}

TEST_F(RecordFileTest, AFolderOfSomebodyElseIsNotUsed)
{
    fs::create_directory(m_folder);
    if (chown(m_folder.c_str(), somebodyElse, somebodyElse) != 0)
        GTEST_SKIP() << "only root can give files away";
    EXPECT_THAT(m_record.prepare(), EndsWith("record belongs to user 65534, expected 0"));
}

TEST_F(RecordFileTest, WhatIsNoFolderIsNotUsed)
{
    m_scratch.write("record", "");
    EXPECT_THAT(m_record.prepare(), EndsWith("record is no folder"));
    fs::remove(m_folder);
    fs::create_directory(m_scratch.path("elsewhere"));
    fs::create_symlink(m_scratch.path("elsewhere"), m_folder);
    EXPECT_THAT(m_record.prepare(), EndsWith("record is no folder")) << "somebody else decides where the link leads";
}

TEST_F(RecordFileTest, AFolderThatCannotBeMadeIsNamed)
{
    EXPECT_THAT(RecordFile(m_scratch.path("no/such")).prepare(),
                testing::AllOf(HasSubstr("cannot make the folder "), EndsWith("no/such: No such file or directory")));
}

TEST_F(RecordFileTest, WrittenReadAndRemoved)
{
    ASSERT_EQ(m_record.prepare(), "");
    std::string reason;
    EXPECT_FALSE(m_record.read(reason));
    EXPECT_EQ(reason, "") << "none there yet is no error";
    for (const std::string& content : {std::string("one\n"), std::string(), std::string(1 << 20, 'x')}) {
        EXPECT_EQ(m_record.write(content), "");
        EXPECT_EQ(m_record.read(reason), content);
        EXPECT_EQ(reason, "");
        EXPECT_EQ(modeOf(path()), 0600U);
        EXPECT_FALSE(m_scratch.has("record/tables.new"));
    }
    EXPECT_EQ(m_record.remove(), "");
    EXPECT_FALSE(m_record.read(reason));
    EXPECT_EQ(m_record.remove(), "") << "none there is no error";
}

TEST_F(RecordFileTest, AWriteThatWasCutLeavesTheOldContent)
{
    ASSERT_EQ(m_record.prepare(), "");
    ASSERT_EQ(m_record.write("old"), "");
    m_scratch.write("record/tables.new", "ne"); // as far as a killed process came
    std::string reason;
    EXPECT_EQ(m_record.read(reason), "old");
    EXPECT_EQ(m_record.write("x"), "");
    EXPECT_EQ(m_record.read(reason), "x") << "and is no hindrance";
}

TEST_F(RecordFileTest, AFileThatOthersCanWriteIsNotBelieved)
{
    ASSERT_EQ(m_record.prepare(), "");
    m_scratch.write("record/tables", "content", 0620);
    expectRefused("tables can be written by others");
}

TEST_F(RecordFileTest, AFileOfSomebodyElseIsNotBelieved)
{
    ASSERT_EQ(m_record.prepare(), "");
    m_scratch.write("record/tables", "content");
    if (chown(path().c_str(), somebodyElse, somebodyElse) != 0)
        GTEST_SKIP() << "only root can give files away";
    expectRefused("tables belongs to user 65534, expected 0");
}

TEST_F(RecordFileTest, WhatIsNoFileOfItsKindIsNotBelieved)
{
    ASSERT_EQ(m_record.prepare(), "");
    fs::create_directory(path());
    expectRefused("is no file of ours");
    fs::remove(path());
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    expectRefused("is no file of ours");
    fs::remove(path());
    m_scratch.write("secret", "content");
    fs::create_symlink(m_scratch.path("secret"), path());
    expectRefused("cannot open");
    fs::remove(path());
    m_scratch.write("record/tables", "");
    fs::resize_file(path(), (16 << 20) + 1);
    expectRefused("is no file of ours");
}

TEST_F(RecordFileTest, WhatCannotBeWrittenSaysSo)
{
    EXPECT_THAT(m_record.write("x"), HasSubstr("cannot write " + path() + ".new: No such file or directory"));
    ASSERT_EQ(m_record.prepare(), "");
    fs::create_directories(path() + "/full");
    EXPECT_THAT(m_record.write("x"), HasSubstr("cannot replace " + path()));
    EXPECT_THAT(m_record.remove(), HasSubstr("cannot remove " + path()));
    fs::remove(path() + ".new");
    fs::create_directories(path() + ".new/full");
    EXPECT_THAT(m_record.write("x"), HasSubstr("cannot write"));
}

TEST_F(RecordFileTest, NothingIsWrittenThroughALink)
{
    ASSERT_EQ(m_record.prepare(), "");
    fs::create_symlink(m_scratch.path("elsewhere"), path() + ".new");
    EXPECT_EQ(m_record.write("x"), "");
    EXPECT_FALSE(m_scratch.has("elsewhere"));
}

TEST_F(RecordFileTest, TheLockIsForOne)
{
    ASSERT_EQ(m_record.prepare(), "");
    EXPECT_EQ(m_record.lockDescriptor(), -1);
    EXPECT_TRUE(m_record.lock());
    EXPECT_GE(m_record.lockDescriptor(), 0);
    EXPECT_TRUE(m_record.lock()) << "it has it";
    {
        RecordFile other(m_folder);
        EXPECT_FALSE(other.lock());
        EXPECT_FALSE(other.lock());
    }
    EXPECT_TRUE(m_record.lock());
}

TEST_F(RecordFileTest, AChildThatHoldsTheDescriptorKeepsTheLock)
{
    ASSERT_EQ(m_record.prepare(), "");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t killed = fork();
    if (killed == 0) {
        RecordFile record(m_folder);
        const pid_t child = record.lock() ? fork() : -1;
        if (child == 0) {
            for (;;)
                pause();
        }
        _exit(write(ends[1], &child, sizeof child) == sizeof child ? 0 : 1);
    }
    pid_t child = -1;
    ASSERT_EQ(read(ends[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(killed, nullptr, 0), killed);
    EXPECT_FALSE(m_record.lock());
    kill(child, SIGKILL);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!m_record.lock() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(m_record.lock());
    close(ends[0]);
    close(ends[1]);
}

TEST_F(RecordFileTest, WithoutAFolderThereIsNothingToLock)
{
    EXPECT_TRUE(m_record.lock());
    EXPECT_EQ(m_record.lockDescriptor(), -1);
}

TEST_F(RecordFileTest, TheTimeOfTheLockIsThatOfTheLastCommit)
{
    ASSERT_EQ(m_record.prepare(), "");
    EXPECT_EQ(m_record.noteCommit(), "") << "without the lock there is nothing to note";
    ASSERT_TRUE(m_record.lock());
    const auto time = [this] {
        struct stat status {
        };
        EXPECT_EQ(stat((m_folder + "/lock").c_str(), &status), 0);
        return std::chrono::sys_time<std::chrono::nanoseconds>(std::chrono::seconds(status.st_mtim.tv_sec) +
                                                               std::chrono::nanoseconds(status.st_mtim.tv_nsec));
    };
    EXPECT_EQ(time().time_since_epoch().count(), 0) << "none yet";
    const auto before = std::chrono::system_clock::now();
    EXPECT_EQ(m_record.noteCommit(), "");
    EXPECT_GE(time(), before);
    EXPECT_LE(time(), std::chrono::system_clock::now());
}

TEST(NetworkNamespaceTest, HasAName)
{
    const std::string name = ebtables::networkNamespace();
    EXPECT_EQ(name, ebtables::networkNamespace());
    EXPECT_THAT(name, testing::MatchesRegex("[0-9]+:[0-9]+"));
}

} // namespace
