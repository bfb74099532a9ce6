#include "core/QRWException.h"
#include "core/Quarrow.h"
#include "core/SignalMask.h"
#include "db/SqliteProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

/// SIGUSR1: walk the volumes again.
void qrw_usr1_handler(int)
{
    const ServedSignals blocked(ServedSignals::block);
    syslog(LOG_LOCAL5 | LOG_INFO, "Got a usr1 signal\n");
    Quarrow::getInstance()->wakeupThread();
    syslog(LOG_LOCAL5 | LOG_INFO, "Done with usr1 signal\n");
}

/// SIGTERM: stop. The whole shut-down happens in here. The control loop returns after it.
void qrw_term_handler(int)
{
    const ServedSignals blocked(ServedSignals::block);
    syslog(LOG_LOCAL5 | LOG_INFO, "Got a signal to stop\n");
    Quarrow::getInstance()->stop();
    syslog(LOG_LOCAL5 | LOG_INFO, "Done with the stop\n");
}

/// Makes waits go on after the signal's handler. With signal() alone that depends on the C library, and the control
/// loop logs an interrupted wait differently.
static void restartWaitsAfter(int number)
{
    struct sigaction action;
    sigaction(number, nullptr, &action);
    action.sa_flags |= SA_RESTART;
    sigaction(number, &action, nullptr);
}

/// Opens descriptors 0 to 2 where they are closed. Otherwise a catalogue could become descriptor 1 and receive the
/// progress lines.
static void openStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1)
            open("/dev/null", O_RDWR); // the lowest free number, which is this one
    }
}

/// Makes printing lose lines rather than wait. When a pipe is full and nobody reads it, a walk would otherwise wait
/// while it holds the volume's lock and a transaction. The output is opened anew, because O_NONBLOCK counts for every
/// process that shares the open file. A socket cannot be opened anew, so its shared flag is set.
static void neverWaitForReaders()
{
    for (const int descriptor : { STDOUT_FILENO, STDERR_FILENO }) {
        struct stat64 status;
        if (fstat64(descriptor, &status) != 0 || S_ISREG(status.st_mode))
            continue;
        const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
        const int own = open(self.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (own >= 0) {
            dup2(own, descriptor);
            close(own);
        } else {
            fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
        }
    }
}

/// Sleeps for 60 seconds or until a served signal was handled. ppoll() opens the mask and begins to wait in one step: a
/// signal between the two would be handled before the sleep, which would then last its full time.
static void sleepWithSignalsOpen()
{
    const sigset_t mask = maskWithServedSignalsOpen();
    const timespec minute = { 60, 0 };
    ppoll(nullptr, 0, &minute, &mask);
}

int main(int argc, char** argv)
{
    openStandardDescriptors();
    if (argc == 2 && std::string(argv[1]) == "version") {
        std::cout << QUARROW_PRINTED_VERSION << std::endl;
        return 0;
    }

    const sigset_t served = servedSignals();
    pthread_sigmask(SIG_BLOCK, &served, nullptr);
    neverWaitForReaders();
    setUpSqliteForDaemon();
    Quarrow::getInstance(); // before its handlers, and before there are other threads
    signal(SIGTERM, qrw_term_handler);
    signal(SIGUSR1, qrw_usr1_handler);
    restartWaitsAfter(SIGTERM);
    restartWaitsAfter(SIGUSR1);
    signal(SIGPIPE, SIG_IGN); // the reader of the progress lines may go away
    signal(SIGXFSZ, SIG_IGN); // writing beyond the size limit then fails, as on a full volume
    syslog(LOG_LOCAL5 | LOG_INFO, "================\n");
    try {
        Quarrow::getInstance()->start();
        sleepWithSignalsOpen();
        Quarrow::getInstance()->run();
    } catch (QRWException& e) {
        syslog(LOG_LOCAL5 | LOG_ERR, "%s\n", e.what());
    }
    exit(0); // also when the start failed, on purpose: whoever starts the daemon knows no other status
}
