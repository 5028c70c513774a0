// The daemon's entry function: command line, start-up, main loop, teardown.
#pragma once

namespace zol::moatkeeper
{

// Runs the daemon until a stop signal arrives. Returns the process's exit status: 0, or 1 after an exception of
// the platform. Ends the process itself (status 0 or 1) for -h, a bad option and a second instance.
// Call once per process, from the main thread.
int run(int argc, char* argv[]);

} // namespace zol::moatkeeper
