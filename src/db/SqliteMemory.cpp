#include "db/SqliteMemory.h"

#include <pthread.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t step = 32;  // bytes from one list's blocks to the next one's
constexpr std::size_t lists = 32; // so blocks of up to 1 KiB are kept
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t mostKept = 0; // it would not see the use of a block that was freed
#else
constexpr std::size_t mostKept = 262144; // bytes: what a thread holds that once prepared or read a lot
#endif

/// Stands before the memory that SQLite gets, which has to be aligned to 8 bytes.
struct alignas(8) Header {
    std::size_t size; ///< of that memory
};

struct FreeBlock {
    FreeBlock* next;
};

/// The free blocks of one thread. A block may come back on another thread than it was taken on, and stays there.
struct FreeBlocks {
    FreeBlock* first[lists];
    std::size_t kept;     ///< bytes
    bool isFreedAtTheEnd; ///< of the thread; without that no block is kept
};

/// Without a constructor or destructor: C++ ends the process when it finds no memory to register one.
thread_local FreeBlocks freeBlocks;
pthread_key_t endOfThread;

void freeAll(void* blocks)
{
    auto* const own = static_cast<FreeBlocks*>(blocks);
    for (FreeBlock*& block : own->first)
        while (block != nullptr)
            std::free(reinterpret_cast<Header*>(std::exchange(block, block->next)) - 1);
    own->kept = 0;
    own->isFreedAtTheEnd = false;
}

bool mayKeep(FreeBlocks& own, std::size_t size)
{
    if (own.kept + size > mostKept)
        return false;
    if (!own.isFreedAtTheEnd)
        own.isFreedAtTheEnd = pthread_setspecific(endOfThread, &own) == 0;
    return own.isFreedAtTheEnd;
}

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
    if (list >= lists || !mayKeep(own, size)) {
        std::free(header);
        return;
    }
    auto* const block = static_cast<FreeBlock*>(memory);
    block->next = own.first[list];
    own.first[list] = block;
    own.kept += size;
}

int sizeOf(void* memory) { return static_cast<int>(headerOf(memory)->size); }

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
    if (pthread_key_create(&endOfThread, freeAll) != 0)
        return;
    sqlite3_mem_methods methods
        = { allocate, release, resize, sizeOf, roundUp, [](void*) { return SQLITE_OK; }, [](void*) {}, nullptr };
    sqlite3_config(SQLITE_CONFIG_MALLOC, &methods);
}
