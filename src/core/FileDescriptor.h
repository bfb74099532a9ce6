#pragma once

#include <unistd.h>

/// Owns an open descriptor and closes it at its own end.
class FileDescriptor {
public:
    /// `opened`: the result of open() or a similar call. A negative one is a failure, and nothing is owned.
    explicit FileDescriptor(int opened)
        : descriptor(opened)
    {
    }
    ~FileDescriptor()
    {
        if (isOpen())
            close(descriptor);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    bool isOpen() const { return descriptor >= 0; }
    int get() const { return descriptor; }

private:
    const int descriptor;
};
