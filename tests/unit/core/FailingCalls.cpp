#include "core/FailingCalls.h"

#include <dlfcn.h>
#include <pthread.h>

#include <csignal>

int joinResult = 0;
int maskResult = 0;

extern "C" int pthread_join(pthread_t thread, void** result)
{
    static const auto real = reinterpret_cast<int (*)(pthread_t, void**)>(dlsym(RTLD_NEXT, "pthread_join"));
    const int actual = real(thread, result);
    return joinResult != 0 ? joinResult : actual;
}

extern "C" int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept
{
    static const auto real
        = reinterpret_cast<int (*)(int, const sigset_t*, sigset_t*)>(dlsym(RTLD_NEXT, "pthread_sigmask"));
    const int actual = real(how, set, old);
    return maskResult != 0 ? maskResult : actual;
}
