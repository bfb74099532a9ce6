#include "config/PrivateMount.h"

#include <sched.h>
#include <sys/mount.h>

PrivateMount PrivateMount::inMemory(const std::string& folder, const std::string& options)
{
    return PrivateMount("tmpfs", folder, "tmpfs", 0, options);
}

PrivateMount PrivateMount::pinning(const std::string& file) { return PrivateMount(file, file, nullptr, MS_BIND, ""); }

PrivateMount::PrivateMount(
    const std::string& source, const std::string& at, const char* type, unsigned long flags, const std::string& options)
    : target(at)
    , mounted(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
          && mount(source.c_str(), target.c_str(), type, flags, options.c_str()) == 0)
{
}

PrivateMount::~PrivateMount()
{
    if (mounted)
        umount2(target.c_str(), MNT_DETACH);
}

bool PrivateMount::makeReadOnly() const
{
    return mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}
