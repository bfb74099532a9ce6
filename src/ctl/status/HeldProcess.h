#pragma once

#include "core/FileDescriptor.h"

/// A process by a descriptor, which never comes to stand for another one. Its id may: once the process has ended, the
/// next one may have it. Where the kernel has no such descriptors, the id is all there is.
class HeldProcess {
public:
    /// Throws a Problem when there is no such process, or no descriptor is left.
    explicit HeldProcess(int process);

    /// Throws a Problem, also when the process has ended.
    void send(int signal) const;

private:
    const int number;
    const FileDescriptor descriptor;
};
