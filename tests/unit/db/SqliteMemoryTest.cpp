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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitizerHasTheMemory = true;
#else
constexpr bool sanitizerHasTheMemory = false;
#endif

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
        std::memset(memory, 0xff, static_cast<std::size_t>(sqlite3_msize(memory)));
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

TEST_F(SqliteMemoryTest, takesFreeBlocksOfTheSameSizeAgainTheLastOneFirst)
{
    if (sanitizerHasTheMemory)
        GTEST_SKIP() << "nothing is kept from the sanitizer";
    std::vector<void*> blocks(100);
    for (void*& block : blocks)
        block = sqlite3_malloc(100);
    for (void* block : blocks)
        sqlite3_free(block);
    for (auto block = blocks.rbegin(); block != blocks.rend(); ++block)
        ASSERT_EQ(*block, sqlite3_malloc(128));
    for (void* block : blocks)
        sqlite3_free(block);
}

TEST_F(SqliteMemoryTest, goesBackToTheSystemBeyondABound)
{
    if (sanitizerHasTheMemory)
        GTEST_SKIP() << "the sanitizer does not tell what is in use";
    std::vector<void*> blocks(10000);
    const std::size_t before = mallinfo2().uordblks;
    for (void*& block : blocks)
        block = sqlite3_malloc(1000);
    EXPECT_LT(before + 10000000, mallinfo2().uordblks);
    for (void* block : blocks)
        sqlite3_free(block);
    EXPECT_GT(before + 300000, mallinfo2().uordblks);
}

TEST_F(SqliteMemoryTest, mayBeFreedOnAnotherThreadAndGoesWithIt)
{
    if (sanitizerHasTheMemory)
        GTEST_SKIP() << "the sanitizer does not tell what is in use";
    std::vector<void*> blocks(200);
    const std::size_t before = mallinfo2().uordblks;
    for (void*& block : blocks)
        block = sqlite3_malloc(1000);
    std::thread([&blocks] {
        for (void* block : blocks)
            sqlite3_free(block);
    }).join();
    EXPECT_GT(before + 100000, mallinfo2().uordblks);
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
