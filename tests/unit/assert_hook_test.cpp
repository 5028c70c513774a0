#include "platform/assert_hook.hpp"
#include "platform/sysloglevel.h"

#include <csignal>
#include <exception>
#include <gtest/gtest.h>
#include <stdexcept>

// The test needs assertions, whatever the build type.
#undef NDEBUG
#include <cassert>

namespace
{

using zol::error::DefaultAssertHook;

void prepare()
{
    ZOL_Sysloglevel_construct2("", "moatkeeper");
}

template <typename Exception>
void leakException(Exception exception) noexcept
{
    std::rethrow_exception(std::make_exception_ptr(exception));
}

TEST(AssertHookDeathTest, AFailedAssertionIsReportedOnceAndAborts)
{
    const auto failing = [] {
        prepare();
        const DefaultAssertHook hook;
        const int rules = 2;
        assert(rules == 3);
    };
    EXPECT_EXIT(failing(), testing::KilledBySignal(SIGABRT),
                "^assert:40: .*assert_hook_test.cpp:[0-9]+: .*: Assertion 'rules == 3' failed\n$");
}

TEST(AssertHookDeathTest, AnUncaughtExceptionIsReported)
{
    const auto failing = [] {
        prepare();
        const DefaultAssertHook hook;
        leakException(std::runtime_error("no\nmemory"));
    };
    EXPECT_EXIT(failing(), testing::KilledBySignal(SIGABRT), "^assert:10: Uncaught exception: no\\\\nmemory\n$");
}

TEST(AssertHookDeathTest, AnyTypeOfException)
{
    const auto failing = [] {
        prepare();
        const DefaultAssertHook hook;
        leakException(5);
    };
    EXPECT_EXIT(failing(), testing::KilledBySignal(SIGABRT), "^assert:20: Uncaught exception of an unknown type\n$");
}

TEST(AssertHookDeathTest, ReportsLeaveStandardErrorWhenSwitched)
{
    const auto failing = [] {
        prepare();
        DefaultAssertHook hook;
        hook.setSyslog(true);
        leakException(5);
    };
    EXPECT_EXIT(failing(), testing::KilledBySignal(SIGABRT), "^$");
}

TEST(AssertHookTest, TheHandlerBeforeIsRestored)
{
    const std::terminate_handler before = std::get_terminate();
    {
        const DefaultAssertHook hook;
        EXPECT_NE(std::get_terminate(), before);
    }
    EXPECT_EQ(std::get_terminate(), before);
}

} // namespace
