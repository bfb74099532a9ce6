#include "watch/SelectAndSystem.h"

#include <dlfcn.h>
#include <sys/select.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>

namespace {

std::mutex mutex; // guards everything below
std::optional<std::chrono::milliseconds> quietTime;
std::optional<int> selectResult;
std::function<void(int)> selectHook;
int selectCalls = 0;
std::string selectText;
std::vector<std::string> commands;
bool commandsRefused = false;

std::string describe(int descriptors, const fd_set* readable, const timeval& timeout)
{
    std::string text = std::to_string(descriptors) + " [";
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
        if (FD_ISSET(descriptor, readable))
            text += (text.back() == '[' ? "" : " ") + std::to_string(descriptor);
    }
    return text + "] " + std::to_string(timeout.tv_sec) + "s " + std::to_string(timeout.tv_usec) + "us";
}

timespec timespecOf(std::chrono::microseconds time)
{
    return { time.count() / 1000000, static_cast<long>(time.count() % 1000000 * 1000) };
}

} // namespace

extern "C" int select(int descriptors, fd_set* readable, fd_set* writable, fd_set* special, timeval* timeout)
{
    std::function<void(int)> hook;
    int before = 0;
    timespec wait = timespecOf(std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec));
    std::optional<int> result;
    {
        const std::lock_guard<std::mutex> held(mutex);
        hook = selectHook;
        before = selectCalls++;
        selectText = describe(descriptors, readable, *timeout);
        if (quietTime)
            wait = timespecOf(*quietTime);
        result = selectResult;
    }
    if (hook)
        hook(before);
    return result ? *result : pselect(descriptors, readable, writable, special, &wait, nullptr);
}

extern "C" int system(const char* command)
{
    {
        const std::lock_guard<std::mutex> held(mutex);
        if (commandsRefused)
            throw std::bad_alloc();
        commands.emplace_back(command);
    }
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}

void setQuietTime(std::chrono::milliseconds quiet)
{
    const std::lock_guard<std::mutex> held(mutex);
    quietTime = quiet;
}

void onSelect(const std::function<void(int)>& hook)
{
    const std::lock_guard<std::mutex> held(mutex);
    selectHook = hook;
}

void setSelectResult(int result)
{
    const std::lock_guard<std::mutex> held(mutex);
    selectResult = result;
}

std::string latestSelect()
{
    const std::lock_guard<std::mutex> held(mutex);
    return selectText;
}

std::vector<std::string> commandsRun()
{
    const std::lock_guard<std::mutex> held(mutex);
    return commands;
}

void refuseCommands()
{
    const std::lock_guard<std::mutex> held(mutex);
    commandsRefused = true;
}
