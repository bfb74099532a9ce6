#include "support/Waiting.h"

#include <thread>

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds pause, std::chrono::milliseconds bound)
{
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(pause);
    }
    return true;
}
