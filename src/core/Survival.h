#pragma once

#include <exception>

/// Runs the work on one volume, so that its failure ends neither the thread nor the work on the other volumes.
///
/// True when `action()` returned. When it threw a std::exception or, as a damaged state file and an inotify instance
/// that is not to be had do, a bare `const char*`, `onFailure(text)` is called with the text, and the result is false.
///
/// Nothing else is caught, on purpose: pthread_exit() and a cancelled thread unwind through here, and a catch (...)
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
