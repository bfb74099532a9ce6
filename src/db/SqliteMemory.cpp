#include "db/SqliteMemory.h"

#include <sqlite3.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t step = 32;         // bytes from one list's blocks to the next one's
constexpr std::size_t lists = 32;        // so blocks of up to 1 KiB are kept
constexpr std::size_t mostKept = 262144; // bytes per thread: two or three folders' statements

/// Stands before the memory that SQLite gets.
struct Header {
    std::size_t size; ///< of that memory
};

struct FreeBlock {
    FreeBlock* next;
};

/// The free blocks of one thread. A block may come back on another thread than it was taken on, and stays there.
struct FreeBlocks {
    FreeBlock* first[lists] = {};
    std::size_t kept = 0;

    ~FreeBlocks()
    {
        for (FreeBlock*& block : first)
            while (block != nullptr)
                std::free(reinterpret_cast<Header*>(std::exchange(block, block->next)) - 1);
        kept = mostKept; // what is freed while the thread ends is not kept any more
    }
};

thread_local FreeBlocks freeBlocks;

std::size_t rounded(std::size_t bytes) { return (bytes + step - 1) / step * step; }

Header* headerOf(void* memory) { return static_cast<Header*>(memory) - 1; }

void* allocate(int bytes)
{
    const std::size_t size = rounded(static_cast<std::size_t>(bytes));
    const std::size_t list = size / step - 1;
    FreeBlocks& own = freeBlocks;
    if (list < lists && own.first[list] != nullptr) {
        FreeBlock* const block = own.first[list];
        own.first[list] = block->next;
        own.kept -= size;
        return block;
    }
    auto* const header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
    if (header == nullptr)
        return nullptr;
    header->size = size;
    return header + 1;
}

void release(void* memory)
{
    Header* const header = headerOf(memory);
    const std::size_t size = header->size;
    const std::size_t list = size / step - 1;
    FreeBlocks& own = freeBlocks;
    if (list >= lists || own.kept + size > mostKept) {
        std::free(header);
        return;
    }
    auto* const block = static_cast<FreeBlock*>(memory);
    block->next = own.first[list];
    own.first[list] = block;
    own.kept += size;
}

int sizeOf(void* memory) { return memory == nullptr ? 0 : static_cast<int>(headerOf(memory)->size); }

void* resize(void* memory, int bytes)
{
    const auto wanted = static_cast<std::size_t>(bytes);
    const std::size_t size = headerOf(memory)->size;
    if (wanted <= size && wanted + step > size)
        return memory;
    void* const moved = allocate(bytes);
    if (moved == nullptr)
        return nullptr;
    std::memcpy(moved, memory, size < wanted ? size : wanted);
    release(memory);
    return moved;
}

int roundUp(int bytes) { return static_cast<int>(rounded(static_cast<std::size_t>(bytes))); }

} // namespace

void giveSqliteMemoryPerThread()
{
    static sqlite3_mem_methods methods
        = { allocate, release, resize, sizeOf, roundUp, [](void*) { return SQLITE_OK; }, [](void*) {}, nullptr };
    sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}
