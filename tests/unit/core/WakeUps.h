#pragma once

#include "core/SignalObject.h"

#include <sys/time.h>

#include <csignal>

/// Takes every wake-up that is left in the SignalObject and returns how many there were. What ends the counting is a
/// wait() that slept and was interrupted. Leaves the count at 0.
inline int takeWakeUps(SignalObject& signalObject = *SignalObject::getInstance())
{
    struct sigaction before;
    struct sigaction interrupting = {};
    interrupting.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(SIGALRM, &interrupting, &before);
    const itimerval often = { { 0, 10000 }, { 0, 10000 } }; // again and again: one may come before the sleep
    setitimer(ITIMER_REAL, &often, nullptr);
    int count = 0;
    while (signalObject.wait() == 0)
        ++count;
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    return count;
}
