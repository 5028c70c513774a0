// The daemon's entry function: command line, start-up, main loop, teardown.
#pragma once

#include <atomic>

namespace zol::moatkeeper
{

// Set by the handler of the stop signals, ends the main loop: all that the two share.
extern std::atomic<unsigned char> g_stopRequested;
static_assert(std::atomic<unsigned char>::is_always_lock_free, "a signal handler writes it");

// Runs the daemon until a stop signal arrives. Returns the process's exit status: 0, or 1 after an exception of
// the platform. Ends the process itself (status 0 or 1) for -h, a bad option and a second instance.
// Call once per process, from the main thread.
int run(int argc, char* argv[]);

} // namespace zol::moatkeeper
