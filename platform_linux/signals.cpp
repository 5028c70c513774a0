#include "platform_linux/signals.hpp"

#include <csignal>
#include <initializer_list>

namespace zol::platform
{

int handOverSignal()
{
    return SIGRTMIN + 1;
}

int reloadSignal()
{
    return SIGHUP;
}

void ignoreMeaninglessSignals()
{
    struct sigaction ignore {
    };
    ignore.sa_handler = SIG_IGN;
    for (const int number :
         {SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGPIPE, SIGIO, SIGPWR, SIGSTKFLT, SIGXCPU, SIGXFSZ})
        sigaction(number, &ignore, nullptr);
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
        if (number != handOverSignal())
            sigaction(number, &ignore, nullptr);
    }
}

} // namespace zol::platform
