#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// The test programs that link this have a select() and a system() of their own, which do the real thing until a test
// says otherwise: a burst needs no quiet time, and what goes on between two steps of a thread can be arranged. Any
// thread.

/// How long select() really waits, whatever the caller wants.
void setQuietTime(std::chrono::milliseconds quiet);
/// Called at the start of each select(), with how many there were before this one.
void onSelect(const std::function<void(int before)>& hook);
/// What select() returns from now on.
void setSelectResult(int result);
/// What the latest select() was asked: "1024 [3] 5s 0us".
std::string latestSelect();

/// Every command that system() was given; they were run.
std::vector<std::string> commandsRun();
/// From now on, as when the memory for a command is missing, none is run and std::bad_alloc is thrown.
void refuseCommands();
