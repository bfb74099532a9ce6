#include "db/SmallVolume.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

SmallVolume::SmallVolume(const std::string& folder, int kibibytes)
    : mountPoint(folder)
{
    const std::string options = "mode=755,size=" + std::to_string(kibibytes) + "k";
    EXPECT_EQ(0, mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str())) << std::strerror(errno);
}

SmallVolume::~SmallVolume() { umount2(mountPoint.c_str(), MNT_DETACH); }

void SmallVolume::makeReadOnly() const
{
    EXPECT_EQ(0, mount(nullptr, mountPoint.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr)) << std::strerror(errno);
}
