#pragma once

#include <chrono>
#include <functional>

/// Waits, up to a generous bound, until the condition holds; false when it never did. It is asked every `pause`.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds pause = std::chrono::milliseconds(1),
    std::chrono::milliseconds bound = std::chrono::seconds(60));
