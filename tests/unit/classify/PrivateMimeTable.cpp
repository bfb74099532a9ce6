#include "classify/PrivateMimeTable.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <fstream>

static const char* const tableFolder = "/usr/local/quarrow";

PrivateMimeTable::PrivateMimeTable()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
        || mount("tmpfs", tableFolder, "tmpfs", 0, "mode=755") != 0)
        throw std::runtime_error("no private " + std::string(tableFolder));
}

PrivateMimeTable::PrivateMimeTable(const std::string& content)
    : PrivateMimeTable()
{
    replace(content);
}

PrivateMimeTable::~PrivateMimeTable() { umount2(tableFolder, MNT_DETACH); }

void PrivateMimeTable::replace(const std::string& content) const
{
    std::ofstream file(std::string(tableFolder) + "/mime_types.txt", std::ios::binary);
    file << content;
    file.close();
    EXPECT_TRUE(file.good());
}
