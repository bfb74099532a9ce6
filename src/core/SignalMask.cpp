#include "core/SignalMask.h"

#include <syslog.h>

void blockAllSignals()
{
    sigset_t all;
    sigfillset(&all);
    syslog(LOG_LOCAL5 | LOG_INFO, "pthread_sigmask returned %d\n", pthread_sigmask(SIG_BLOCK, &all, nullptr));
}

sigset_t servedSignals()
{
    sigset_t served;
    sigemptyset(&served);
    sigaddset(&served, SIGTERM);
    sigaddset(&served, SIGUSR1);
    return served;
}

sigset_t maskWithServedSignalsOpen()
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    sigdelset(&mask, SIGTERM);
    sigdelset(&mask, SIGUSR1);
    return mask;
}

bool isStopSignalPending()
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGTERM) == 1;
}

ServedSignals::ServedSignals(Change change)
{
    const sigset_t served = servedSignals();
    pthread_sigmask(change, &served, &before);
}

ServedSignals::~ServedSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
