#include "core/WithoutLinks.h"

#include "core/HeldFolder.h"
#include "support/TemporaryFolder.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool knowsOpenat2 = true;

/// Paths below a folder, some with links in them, on a kernel or in a sandbox with and without openat2().
class WithoutLinksTest : public testing::TestWithParam<bool> {
protected:
    WithoutLinksTest()
    {
        knowsOpenat2 = GetParam();
        folder.writeFile("real/deep/file", "content");
        fs::create_directory_symlink(folder.path("real"), folder.path("link"));
        fs::create_symlink(folder.path("real/deep/file"), folder.path("real/deep/fileLink"));
    }
    ~WithoutLinksTest() override { knowsOpenat2 = true; }

    /// What was opened there, or "refused".
    std::string opened(const std::string& below, int flags = O_RDONLY) const
    {
        const FileDescriptor file(openWithoutLinks(folder.path(below).c_str(), flags | O_CLOEXEC));
        if (!file.isOpen())
            return "refused";
        return fs::read_symlink("/proc/self/fd/" + std::to_string(file.get()))
            .string()
            .substr(fs::canonical(folder.path()).string().length() + 1);
    }

    TemporaryFolder folder;
};

} // namespace

/// Stands in for the C library's in this whole program.
extern "C" long syscall(long number, ...) noexcept
{
    if (number == SYS_openat2 && !knowsOpenat2) {
        errno = ENOSYS;
        return -1;
    }
    va_list list;
    va_start(list, number);
    long arguments[6]; // as many as there are at the most
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    static auto* const real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

TEST_P(WithoutLinksTest, opensWhatIsReachedByFoldersAlone)
{
    EXPECT_EQ("real/deep/file", opened("real/deep/file"));
    EXPECT_EQ("real/deep/file", opened("real//deep/./file"));
    EXPECT_EQ("real/deep/file", opened("real/../real/deep/file"));
    EXPECT_EQ("real/deep", opened("real/deep/", O_PATH | O_DIRECTORY));
    EXPECT_EQ("refused", opened("real/none"));
    EXPECT_EQ("refused", opened("none/file"));
}

TEST_P(WithoutLinksTest, followsNoLink)
{
    EXPECT_EQ("refused", opened("link/deep/file"));
    EXPECT_EQ("refused", opened("real/deep/fileLink"));
    EXPECT_EQ("refused", opened("link", O_PATH | O_DIRECTORY));
    EXPECT_EQ("refused", opened("link/", O_PATH | O_DIRECTORY));
    EXPECT_FALSE(HeldFolder(folder.path("link/file")).isOpen());
    EXPECT_TRUE(HeldFolder(folder.path("real/file")).isOpen());
}

TEST_P(WithoutLinksTest, makesAFileWithItsMode)
{
    const mode_t before = umask(0);
    EXPECT_EQ("real/new", opened("real/new", O_WRONLY | O_CREAT | O_EXCL));
    const FileDescriptor made(openWithoutLinks(folder.path("real/other").c_str(), O_WRONLY | O_CREAT, 0640));
    umask(before);
    struct stat64 status = {};
    ASSERT_EQ(0, fstat64(made.get(), &status));
    EXPECT_EQ(0640U, status.st_mode & 0777U);
    EXPECT_FALSE(FileDescriptor(openWithoutLinks(folder.path("link/new").c_str(), O_WRONLY | O_CREAT, 0640)).isOpen());
}

TEST_P(WithoutLinksTest, removesNothingBehindALink)
{
    EXPECT_EQ(-1, unlinkWithoutLinks(folder.path("link/deep/file").c_str()));
    EXPECT_TRUE(folder.exists("real/deep/file"));
    EXPECT_EQ(0, unlinkWithoutLinks(folder.path("real/deep/fileLink").c_str())) << "the link itself";
    EXPECT_EQ(0, unlinkWithoutLinks(folder.path("real/deep/file").c_str()));
    EXPECT_FALSE(folder.exists("real/deep/file"));
}

TEST_P(WithoutLinksTest, refusesANameThatIsTooLong)
{
    EXPECT_EQ("refused", opened("real/" + std::string(300, 'x')));
    EXPECT_EQ("refused", opened(std::string(300, 'x') + "/file"));
    EXPECT_EQ(-1, unlinkWithoutLinks((std::string(5000, '/') + "file").c_str()));
}

INSTANTIATE_TEST_SUITE_P(Kernel, WithoutLinksTest, testing::Bool(),
    [](const auto& known) { return known.param ? "withOpenat2" : "withoutOpenat2"; });
