#include "db/SqliteMemory.h"

#include "db/CatalogueTest.h"

#include <malloc.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

/// SQLite with memory of its own. It is configured for the whole process, and given back for the tests that follow.
class SqliteMemoryTest : public CatalogueTest {
protected:
    SqliteMemoryTest()
    {
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_GETMALLOC, &usual);
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        giveSqliteMemoryPerThread();
        sqlite3_initialize();
    }
    ~SqliteMemoryTest() override
    {
        close();
        sqlite3_shutdown();
        sqlite3_config(SQLITE_CONFIG_MALLOC, &usual);
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);
    }

    static std::string content(const void* memory, std::size_t length)
    {
        return { static_cast<const char*>(memory), length };
    }

private:
    sqlite3_mem_methods usual = {};
};

TEST_F(SqliteMemoryTest, holdsWhatIsPutIntoIt)
{
    for (int bytes = 1; bytes < 3000; bytes += 7) {
        void* const memory = sqlite3_malloc(bytes);
        ASSERT_NE(nullptr, memory);
        ASSERT_LE(static_cast<sqlite3_uint64>(bytes), sqlite3_msize(memory));
        ASSERT_EQ(0U, reinterpret_cast<std::uintptr_t>(memory) % 8);
        std::memset(memory, 0xff, sqlite3_msize(memory));
        sqlite3_free(memory);
    }
}

TEST_F(SqliteMemoryTest, keepsTheContentWhenItGrowsAndShrinks)
{
    void* memory = sqlite3_malloc(10);
    std::memcpy(memory, "0123456789", 10);
    for (const int bytes : { 11, 31, 32, 33, 200, 1024, 1025, 5000, 1000, 40, 10 }) {
        memory = sqlite3_realloc(memory, bytes);
        ASSERT_LE(static_cast<sqlite3_uint64>(bytes), sqlite3_msize(memory));
        ASSERT_EQ("0123456789", content(memory, 10)) << bytes;
    }
    sqlite3_free(memory);
}

TEST_F(SqliteMemoryTest, takesAFreeBlockOfTheSameSizeAgain)
{
    void* const first = sqlite3_malloc(100);
    sqlite3_free(first);
    void* const second = sqlite3_malloc(128);
    EXPECT_EQ(first, second);
    void* const third = sqlite3_malloc(100);
    EXPECT_NE(second, third);
    sqlite3_free(second);
    sqlite3_free(third);
}

TEST_F(SqliteMemoryTest, goesBackToTheSystemBeyondABound)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator does not tell what is in use";
#endif
    std::vector<void*> blocks;
    const std::size_t before = mallinfo2().uordblks;
    for (int number = 0; number < 10000; ++number)
        blocks.push_back(sqlite3_malloc(1000));
    EXPECT_LT(before + 10000000, mallinfo2().uordblks);
    for (void* block : blocks)
        sqlite3_free(block);
    EXPECT_GT(before + 500000, mallinfo2().uordblks);
}

TEST_F(SqliteMemoryTest, mayBeFreedOnAnotherThreadAndGoesWithIt)
{
    std::vector<void*> blocks;
    for (int number = 0; number < 100; ++number)
        blocks.push_back(sqlite3_malloc(10 * number + 1));
    std::thread([&blocks] {
        for (void* block : blocks)
            sqlite3_free(block);
        sqlite3_free(sqlite3_malloc(100));
    }).join(); // a block that the thread had kept would be lost: valgrind and the leak checker tell
}

TEST_F(SqliteMemoryTest, servesACatalogue)
{
    openNew();
    for (int number = 0; number < 200; ++number) {
        DBFolder folder = folderAt("/" + std::string(static_cast<std::size_t>(number), 'x') + std::to_string(number));
        EXPECT_TRUE(db->insertFolder(folder, true));
        EXPECT_TRUE(db->folderExists(folder));
    }
    EXPECT_EQ("200\n", query("select count(*) from Folders"));
}

} // namespace
