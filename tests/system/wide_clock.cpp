// Preloaded on 32 bit before libfaketime, which knows only the C library's functions with a time of 32 bits. The daemon
// calls those with 64. Here they ask the narrow ones, and so libfaketime.
#undef _TIME_BITS
#undef _FILE_OFFSET_BITS

#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

static_assert(sizeof(time_t) == 4, "nothing to translate");

namespace {

struct WideTimeval {
    std::int64_t seconds;
    std::int64_t micros;
};

struct WideTimespec {
    std::int64_t seconds;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    std::int32_t padding;
    std::int32_t nanos;
#else
    std::int32_t nanos;
    std::int32_t padding;
#endif
};

timespec narrow(const WideTimespec& wide) { return { static_cast<time_t>(wide.seconds), wide.nanos }; }

void widen(const timespec& narrow, WideTimespec* wide)
{
    if (wide != nullptr)
        *wide = { narrow.tv_sec, static_cast<std::int32_t>(narrow.tv_nsec), 0 };
}

} // namespace

extern "C" {

std::int64_t __time64(std::int64_t* result)
{
    const std::int64_t now = time(nullptr);
    if (result != nullptr)
        *result = now;
    return now;
}

int __gettimeofday64(WideTimeval* result, void*)
{
    timeval now;
    gettimeofday(&now, nullptr);
    *result = { now.tv_sec, now.tv_usec };
    return 0;
}

int __clock_gettime64(clockid_t clock, WideTimespec* result)
{
    timespec now;
    const int status = clock_gettime(clock, &now);
    if (status == 0)
        widen(now, result);
    return status;
}

int __nanosleep64(const WideTimespec* time, WideTimespec* rest)
{
    const timespec wanted = narrow(*time);
    timespec left = {};
    const int status = nanosleep(&wanted, &left);
    if (status != 0 && errno == EINTR)
        widen(left, rest);
    return status;
}

int __clock_nanosleep_time64(clockid_t clock, int flags, const WideTimespec* time, WideTimespec* rest)
{
    const timespec wanted = narrow(*time);
    timespec left = {};
    const int error = clock_nanosleep(clock, flags, &wanted, &left);
    if (error == EINTR)
        widen(left, rest);
    return error;
}

int __select64(int count, fd_set* readable, fd_set* writable, fd_set* special, WideTimeval* timeout)
{
    if (timeout == nullptr)
        return select(count, readable, writable, special, nullptr);
    timeval left = { static_cast<time_t>(timeout->seconds), static_cast<suseconds_t>(timeout->micros) };
    const int ready = select(count, readable, writable, special, &left);
    *timeout = { left.tv_sec, left.tv_usec };
    return ready;
}

int __ppoll64(pollfd* waits, nfds_t count, const WideTimespec* timeout, const sigset_t* mask)
{
    if (timeout == nullptr)
        return ppoll(waits, count, nullptr, mask);
    const timespec wanted = narrow(*timeout);
    return ppoll(waits, count, &wanted, mask);
}

} // extern "C"
