#pragma once

#include <unistd.h>

/// Owns an open descriptor, which is closed with it.
class FileDescriptor {
public:
    /// Takes what open() and its like have returned, failures included.
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
