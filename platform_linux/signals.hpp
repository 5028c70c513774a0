// Which signals mean something to a daemon of this platform.
#pragma once

namespace zol::platform
{

// The service manager restarts us with this one: what is in force stays, for the next process. As long as nobody looks
// for it, its default action ends the process, which comes to the same.
int handOverSignal();

// Everything is looked at anew: the configuration, and what is in the kernel.
int reloadSignal();

// From here on the signals that mean nothing to a daemon do nothing, where their default would end it: hang-up, user's,
// timers', of the limits of a resource, real-time ones. Left as they are: SIGINT, SIGTERM and SIGQUIT, the signal
// above, faults of the program itself, what stops and continues a process at a terminal, and what does nothing anyway.
// Programs that are started must be given the defaults back.
void ignoreMeaninglessSignals();

} // namespace zol::platform
