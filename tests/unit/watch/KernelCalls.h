#pragma once

#include <functional>

/// The test programs that link this have an inotify_add_watch() and an eventfd() of their own, which do the real thing
/// until a test says otherwise.

/// From now on the kernel gives no watch, or gives them again. Any thread.
void refuseWatches(bool refused = true);
/// Called when the kernel has a watch that its caller does not know of yet. Set while no other thread adds watches.
void onWatchAdded(const std::function<void()>& hook);
/// How many watches on "/" were asked for that only tell of their own end. Any thread.
int privateWatchesAsked();
/// From now on there is no eventfd to be had, or there is again. Main thread, as the calls of eventfd().
void refuseEventfds(bool refused = true);
