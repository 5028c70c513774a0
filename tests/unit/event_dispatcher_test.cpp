#include "platform_linux/event_dispatcher.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/epoll.h>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;
using tessera::net::EventDispatcher;

class Pipe
{
public:
    Pipe() { EXPECT_EQ(pipe(m_ends), 0); }
    ~Pipe()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    int reader() const { return m_ends[0]; }
    void put() const { EXPECT_EQ(write(m_ends[1], "x", 1), 1); }
    void take() const
    {
        char byte = 0;
        EXPECT_EQ(read(m_ends[0], &byte, 1), 1);
    }

private:
    int m_ends[2] = {-1, -1};
};

volatile std::sig_atomic_t g_signals = 0;

void countSignal(int)
{
    g_signals = g_signals + 1;
}

TEST(EventDispatcherTest, CallsBackForAReadableDescriptor)
{
    EventDispatcher dispatcher;
    const Pipe pipe;
    int calls = 0;
    dispatcher.state().addDescriptor(pipe.reader(), EPOLLIN, [&](std::uint32_t events) {
        EXPECT_TRUE(events & EPOLLIN);
        pipe.take();
        ++calls;
    });
    pipe.put();
    EXPECT_TRUE(dispatcher.handleEvents());
    EXPECT_EQ(calls, 1);
}

TEST(EventDispatcherTest, ADescriptorRemovedByAnotherCallbackOfTheTurnIsNotCalled)
{
    EventDispatcher dispatcher;
    const Pipe first;
    const Pipe second;
    int calls = 0;
    const auto removeBoth = [&](std::uint32_t) {
        ++calls;
        dispatcher.state().removeDescriptor(first.reader());
        dispatcher.state().removeDescriptor(second.reader());
    };
    dispatcher.state().addDescriptor(first.reader(), EPOLLIN, removeBoth);
    dispatcher.state().addDescriptor(second.reader(), EPOLLIN, removeBoth);
    first.put();
    second.put();
    EXPECT_TRUE(dispatcher.handleEvents());
    EXPECT_EQ(calls, 1);
}

TEST(EventDispatcherTest, TimersRunInOrderOfTime)
{
    EventDispatcher dispatcher;
    std::vector<std::string> ran;
    dispatcher.state().startTimer(20ms, [&] { ran.emplace_back("late"); });
    dispatcher.state().startTimer(0ms, [&] { ran.emplace_back("first"); });
    dispatcher.state().startTimer(0ms, [&] { ran.emplace_back("second"); });
    while (ran.size() < 3)
        EXPECT_TRUE(dispatcher.handleEvents());
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "late"}));
}

TEST(EventDispatcherTest, ATimerDoesNotRunBeforeItsTime)
{
    EventDispatcher dispatcher;
    const auto start = std::chrono::steady_clock::now();
    bool ran = false;
    dispatcher.state().startTimer(30ms, [&] { ran = true; });
    EXPECT_TRUE(dispatcher.handleEvents());
    EXPECT_TRUE(ran);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(EventDispatcherTest, AStoppedTimerDoesNotRun)
{
    EventDispatcher dispatcher;
    bool stoppedRan = false;
    bool otherRan = false;
    const auto stopped = dispatcher.state().startTimer(0ms, [&] { stoppedRan = true; });
    dispatcher.state().startTimer(1ms, [&] { otherRan = true; });
    dispatcher.state().stopTimer(stopped);
    dispatcher.state().stopTimer(0);
    while (!otherRan)
        dispatcher.handleEvents();
    EXPECT_FALSE(stoppedRan);
}

TEST(EventDispatcherTest, ASignalFromBeforeTheWaitEndsIt)
{
    g_signals = 0;
    const auto before = std::signal(SIGTERM, countSignal);
    {
        EventDispatcher dispatcher;
        std::raise(SIGTERM);
        EXPECT_EQ(g_signals, 0) << "held back outside the wait";
        EXPECT_FALSE(dispatcher.handleEvents()); // would wait for ever if the signal were lost
        EXPECT_EQ(g_signals, 1);
    }
    std::signal(SIGTERM, before);
}

TEST(EventDispatcherTest, ASignalGetsThroughWhileEventsNeverEnd)
{
    g_signals = 0;
    const auto before = std::signal(SIGTERM, countSignal);
    {
        const Pipe pipe;
        EventDispatcher dispatcher;
        dispatcher.state().addDescriptor(pipe.reader(), EPOLLIN, [](std::uint32_t) {}); // never taken
        pipe.put();
        std::raise(SIGTERM);
        EXPECT_TRUE(dispatcher.handleEvents());
        EXPECT_EQ(g_signals, 1);
        dispatcher.state().removeDescriptor(pipe.reader());
    }
    std::signal(SIGTERM, before);
}

TEST(EventDispatcherTest, CallsBackForASignal)
{
    int reloads = 0;
    {
        EventDispatcher dispatcher;
        std::raise(SIGHUP); // early
        dispatcher.state().addSignal(SIGHUP, [&] { ++reloads; });
        for (int i = 1; i <= 3; ++i) {
            EXPECT_EQ(reloads, i - 1) << "in the loop only";
            EXPECT_TRUE(dispatcher.handleEvents());
            EXPECT_EQ(reloads, i);
            std::raise(SIGHUP);
        }
        dispatcher.state().removeSignal(SIGHUP);
        dispatcher.state().removeSignal(SIGHUP);
        // The last one would end this test after the dispatcher.
    }
    EXPECT_EQ(reloads, 3);
    std::signal(SIGHUP, SIG_DFL);
}

TEST(EventDispatcherTest, ASignalThatIsCalledBackForMayRaiseAnother)
{
    g_signals = 0;
    const auto before = std::signal(SIGTERM, countSignal);
    {
        EventDispatcher dispatcher;
        dispatcher.state().addSignal(SIGHUP, [] { std::raise(SIGTERM); });
        std::raise(SIGHUP);
        EXPECT_TRUE(dispatcher.handleEvents());
        EXPECT_FALSE(dispatcher.handleEvents());
        EXPECT_EQ(g_signals, 1);
        dispatcher.state().removeSignal(SIGHUP);
    }
    std::signal(SIGTERM, before);
    std::signal(SIGHUP, SIG_DFL);
}

TEST(EventDispatcherTest, TheMaskFromBeforeComesBack)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    {
        const EventDispatcher dispatcher;
        sigset_t during;
        pthread_sigmask(SIG_SETMASK, nullptr, &during);
        EXPECT_TRUE(sigismember(&during, SIGTERM));
    }
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
}

TEST(EventDispatcherTest, AnExceptionOfACallbackLeavesHandleEvents)
{
    EventDispatcher dispatcher;
    dispatcher.state().startTimer(0ms, [] { throw std::runtime_error("callback"); });
    EXPECT_THROW(dispatcher.handleEvents(), std::runtime_error);
}

} // namespace
