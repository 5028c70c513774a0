// Which signals mean something to a daemon.
#pragma once

namespace zol::platform
{

// From here on the signals that mean nothing to a daemon do nothing, where their default would end it: hang-up, user's,
// timers', of the limits of a resource, real-time ones. Left as they are: SIGINT, SIGTERM and SIGQUIT, faults of the
// program itself, what stops and continues a process at a terminal, and what does nothing anyway. Programs that are
// started must be given the defaults back.
void ignoreMeaninglessSignals();

} // namespace zol::platform
