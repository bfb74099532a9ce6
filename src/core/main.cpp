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

/// SIGTERM: stop. The whole shut-down happens here; the control loop returns once this does.
void qrw_term_handler(int)
{
    const ServedSignals blocked(ServedSignals::block);
    syslog(LOG_LOCAL5 | LOG_INFO, "Got a signal to stop\n");
    Quarrow::getInstance()->stop();
    syslog(LOG_LOCAL5 | LOG_INFO, "Done with the stop\n");
}

/// signal() leaves it to the C library whether a wait goes on after the handler; the control loop tells one from the
/// other.
static void restartWaitsAfter(int number)
{
    struct sigaction action;
    sigaction(number, nullptr, &action);
    action.sa_flags |= SA_RESTART;
    sigaction(number, &action, nullptr);
}

/// A daemon may be started without these; a catalogue opened as descriptor 1 would then receive the progress lines.
static void openStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1)
            open("/dev/null", O_RDWR); // the lowest free number, which is this one
    }
}

/// Nobody may be reading what the daemon prints. Once a pipe was full, a walk would wait for its reader with the
/// volume's lock and a transaction; instead lines are lost. Opened anew, since the flag is shared with whoever else has
/// the same open file; a socket cannot be.
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

/// A sleep of 60 seconds that lets the served signals in, in one step with the waiting: one that came between opening
/// the mask and falling asleep would be slept through.
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
        std::cout << "1_0_4.8" << std::endl;
        return 0;
    }

    const sigset_t served = servedSignals();
    pthread_sigmask(SIG_BLOCK, &served, nullptr);
    neverWaitForReaders();
    setUpSqliteForDaemon();
    Quarrow::getInstance();
    signal(SIGTERM, qrw_term_handler);
    signal(SIGUSR1, qrw_usr1_handler);
    restartWaitsAfter(SIGTERM);
    restartWaitsAfter(SIGUSR1);
    signal(SIGPIPE, SIG_IGN); // whoever reads the progress lines may go away
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is a failed write, as on a full volume
    syslog(LOG_LOCAL5 | LOG_INFO, "================\n");
    try {
        Quarrow::getInstance()->start();
        sleepWithSignalsOpen();
        Quarrow::getInstance()->run();
    } catch (QRWException& e) {
        syslog(LOG_LOCAL5 | LOG_ERR, "%s\n", e.what());
    }
    exit(0);
}
