#pragma once

#include <string>

/// A mount that only the calling thread sees, and the threads that it starts; gone at the end of the scope. Whoever
/// uses it asks first whether mounting was permitted.
class PrivateMount {
public:
    /// A file system in memory over the folder; `options` as for mount(8).
    static PrivateMount inMemory(const std::string& folder, const std::string& options);
    /// The file over itself: it can be read and written, but nothing can be renamed onto it.
    static PrivateMount pinning(const std::string& file);
    ~PrivateMount();
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;

    bool isMounted() const { return mounted; }
    bool makeReadOnly() const;

private:
    PrivateMount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
        const std::string& options);

    std::string target;
    bool mounted;
};
