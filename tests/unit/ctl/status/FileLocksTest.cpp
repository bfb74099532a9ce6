#include "ctl/status/FileLocks.h"

#include <gtest/gtest.h>
#include <sys/sysmacros.h>

namespace {

TEST(FileLocksTest, onlyLocksThatAreHeldByFcntlCount)
{
    const std::vector<FileLock> locks
        = parseFileLocks("1: POSIX  ADVISORY  READ 3245 00:1b:29668937 128 128\n"
                         "2: FLOCK  ADVISORY  WRITE 3246 fd:00:2 0 EOF\n"
                         "3: OFDLCK ADVISORY  READ  -1 fd:00:3 0 EOF\n"
                         "4: POSIX  ADVISORY  WRITE 3247 fd:10:18446744073709551615 0 EOF\n"
                         "4: -> POSIX  ADVISORY  WRITE 3248 fd:10:5 0 EOF\n"
                         "5: POSIX  ADVISORY  READ 0 00:1b:6 0 EOF\n"
                         "6: POSIX\n"
                         "7: POSIX  ADVISORY  READ 3249 nonsense 0 EOF\n");
    ASSERT_EQ(2U, locks.size());
    EXPECT_EQ(3245, locks[0].process);
    EXPECT_EQ(makedev(0, 0x1b), locks[0].device);
    EXPECT_EQ(29668937U, locks[0].inode);
    EXPECT_EQ(3247, locks[1].process);
    EXPECT_EQ(makedev(0xfd, 0x10), locks[1].device);
    EXPECT_EQ(18446744073709551615U, locks[1].inode);
}

} // namespace
