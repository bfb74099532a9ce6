#include "watch/KernelCalls.h"

#include <dlfcn.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

std::atomic<bool> noMoreWatches = false;
std::atomic<int> privateWatches = 0;
std::function<void()> afterAdd;
bool noEventfds = false;

} // namespace

extern "C" int inotify_add_watch(int descriptor, const char* path, uint32_t mask) noexcept
{
    if (mask == IN_DELETE_SELF && std::strcmp(path, "/") == 0)
        ++privateWatches;
    if (noMoreWatches) {
        errno = ENOSPC;
        return -1;
    }
    static const auto real
        = reinterpret_cast<int (*)(int, const char*, uint32_t)>(dlsym(RTLD_NEXT, "inotify_add_watch"));
    const int watch = real(descriptor, path, mask);
    if (afterAdd)
        afterAdd();
    return watch;
}

extern "C" int eventfd(unsigned count, int flags) noexcept
{
    if (noEventfds) {
        errno = EMFILE;
        return -1;
    }
    return static_cast<int>(syscall(SYS_eventfd2, count, flags));
}

void refuseWatches(bool refused) { noMoreWatches = refused; }

void onWatchAdded(const std::function<void()>& hook) { afterAdd = hook; }

int privateWatchesAsked() { return privateWatches; }

void refuseEventfds(bool refused) { noEventfds = refused; }
