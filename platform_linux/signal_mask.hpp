// Which signals may interrupt a wait.
#pragma once

#include <csignal>

namespace zol::platform
{

// While an EventDispatcher lives: the signal mask from before it held signals back, which a wait uses and which a
// child process must start with. Without a dispatcher: the thread's mask as it is.
sigset_t waitingSignalMask();

} // namespace zol::platform
