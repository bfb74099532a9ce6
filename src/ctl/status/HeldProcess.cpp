#include "ctl/status/HeldProcess.h"

#include "ctl/Problem.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

namespace {

[[noreturn]] void fail(int process)
{
    throw Problem("process " + std::to_string(process),
        std::string("The daemon cannot be signalled: ") + std::strerror(errno), "Try again");
}

// Not by <sys/pidfd.h>: in some C libraries it has no declarations for C++.
int openProcess(int process)
{
    const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (descriptor < 0 && errno != ENOSYS)
        fail(process);
    return descriptor;
}

} // namespace

HeldProcess::HeldProcess(int process)
    : number(process)
    , descriptor(openProcess(process))
{
}

void HeldProcess::send(int signal) const
{
    const long sent = descriptor.isOpen() ? syscall(SYS_pidfd_send_signal, descriptor.get(), signal, nullptr, 0)
                                          : kill(number, signal);
    if (sent != 0)
        fail(number);
}
