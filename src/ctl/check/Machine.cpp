#include "ctl/check/Machine.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>

int Machine::takeInotifyInstance()
{
    const int descriptor = inotify_init1(IN_CLOEXEC);
    if (descriptor < 0)
        return errno;
    close(descriptor);
    return 0;
}
