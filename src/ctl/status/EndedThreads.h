#pragma once

#include "ctl/status/ProcessFacts.h"

#include <optional>

/// The processor time, in nanoseconds, of all threads of the process that have ended: that of the process less that of
/// the threads which are still there. It grows when a thread ends, however short its life was. nullopt when the kernel
/// does not say, or when the process is so busy that the two cannot be taken at one moment.
std::optional<long long> timeOfEndedThreads(const ProcessFacts& process);
