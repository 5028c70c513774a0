#include "platform_linux/file_watch.hpp"

#include "tests/unit/scratch_folder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

namespace
{

using namespace std::chrono_literals;
using tessera::net::EventDispatcher;
using zol::cfg::FileWatch;

class FileWatchTest : public testing::Test
{
protected:
    // Whether it appears before the time is over; a turn for each event.
    bool appears(std::chrono::milliseconds limit = 5s)
    {
        bool over = false;
        const auto timer = m_dispatcher.state().startTimer(limit, [&] { over = true; });
        m_appeared = 0;
        while (m_appeared == 0 && !over)
            m_dispatcher.handleEvents();
        m_dispatcher.state().stopTimer(timer);
        return m_appeared > 0;
    }

    ScratchFolder m_folder;
    EventDispatcher m_dispatcher;
    int m_appeared = 0;
    FileWatch m_watch{m_folder.path("socket"), m_dispatcher.state(), [this] { ++m_appeared; }};
};

TEST_F(FileWatchTest, TellsOfAFileThatIsMade)
{
    m_watch.start();
    m_folder.write("socket", "");
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, TellsOfAFileThatIsMovedThere)
{
    m_folder.write("socket.new", "");
    m_watch.start();
    std::filesystem::rename(m_folder.path("socket.new"), m_folder.path("socket"));
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, SaysNothingOfOthers)
{
    m_folder.write("socket", ""); // before
    m_watch.start();
    for (const char* other : {"socket2", "socke", "another"})
        m_folder.write(other, "");
    EXPECT_FALSE(appears(100ms));
}

TEST_F(FileWatchTest, FindsItAmongThousandsOfOthers)
{
    m_watch.start();
    for (int i = 0; i < 1000; ++i)
        m_folder.write("a-name-that-makes-the-event-longer-" + std::to_string(i), "");
    m_folder.write("socket", "");
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, StopsAndBeginsAgain)
{
    m_watch.start();
    m_watch.start();
    m_watch.stop();
    m_watch.stop();
    m_folder.write("socket", "");
    EXPECT_FALSE(appears(50ms));
    std::filesystem::remove(m_folder.path("socket"));
    m_watch.start();
    m_folder.write("socket", "");
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, TellsOfAFileThatALinkLeadsTo)
{
    std::filesystem::create_directory(m_folder.path("inside"));
    std::filesystem::create_symlink("inside/last", m_folder.path("middle"));
    std::filesystem::create_symlink(m_folder.path("middle"), m_folder.path("socket"));
    m_watch.start();
    m_folder.write("last", "");
    EXPECT_FALSE(appears(20ms));
    m_folder.write("inside/last", "");
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, FollowsALinkThatIsMadeLater)
{
    std::filesystem::create_directory(m_folder.path("inside"));
    m_watch.start();
    std::filesystem::create_symlink("inside/file", m_folder.path("socket"));
    EXPECT_TRUE(appears());
    m_folder.write("inside/file", "");
    EXPECT_TRUE(appears());
}

TEST_F(FileWatchTest, LinksInACircleAreNoError)
{
    std::filesystem::create_symlink("other", m_folder.path("socket"));
    std::filesystem::create_symlink("socket", m_folder.path("other"));
    m_watch.start();
    EXPECT_FALSE(appears(20ms));
}

TEST_F(FileWatchTest, AFolderThatIsNotThereIsNoError)
{
    FileWatch watch("/nowhere/at/all", m_dispatcher.state(), [this] { ++m_appeared; });
    watch.start();
    EXPECT_FALSE(appears(20ms));
}

} // namespace
