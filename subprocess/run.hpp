// Runs a program: no shell, a clean environment, no inherited descriptors, a limit in time.
//
// Threading: one thread at a time. Signals SIGINT, SIGTERM and SIGQUIT are let in while a child is waited for, also
// when the caller holds them back, so that a stop request is noticed.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace subprocess
{

struct RunLimits {
    std::chrono::milliseconds time{60'000};     // then the child is killed
    std::chrono::milliseconds afterStop{2'000}; // likewise, counted from a stop signal
    int keepOpen = -1;                          // a descriptor that the child holds open as well; -1: none
};

// How a child ended.
struct RunResult {
    enum class End {
        Exited,     // exitCode holds
        NotStarted, // no such file, not executable, out of memory ...: reason and error hold
        Killed,     // by a signal that we did not send: reason holds
        TimedOut,   // killed by us, the limit was over
        Stopped,    // killed by us, because a stop signal had come
    };
    End end = End::NotStarted;
    int exitCode = 0;
    int error = 0; // errno
    std::string reason;
    std::string output; // standard output, at most 64 MiB
    std::string errors; // standard error, at most 1 MiB
};

// Starts the program at path with these arguments (without the program's name), input as its standard input, and waits
// for it. Never throws but std::bad_alloc.
RunResult run(const std::string& path, const std::vector<std::string>& arguments, const std::string& input,
              const RunLimits& limits = {});

} // namespace subprocess
