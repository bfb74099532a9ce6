#pragma once

#include <exception>

/// Runs the work on one volume. Its failure ends neither the thread nor the work on the other volumes.
///
/// True when `action()` returned. False when it threw a std::exception or a bare `const char*`: `onFailure(text)` was
/// then called with the text. A damaged state file and a missing inotify instance throw a `const char*`.
///
/// Nothing else is caught, on purpose. pthread_exit() and a cancelled thread unwind through here, and a catch (...)
/// would abort the process.
template <typename Action, typename OnFailure>
bool survive(const Action& action, const OnFailure& onFailure)
{
    try {
        action();
        return true;
    } catch (const std::exception& e) {
        onFailure(e.what());
    } catch (const char* text) {
        onFailure(text);
    }
    return false;
}
