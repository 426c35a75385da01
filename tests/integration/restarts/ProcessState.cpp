// Read from /proc, and counted at each allocation. The allocator's own count includes the freed
// blocks that each thread caches, which grow for a long time.

#include "ProcessState.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace
{

std::atomic<uint64_t> sAllocated{0};

}  // namespace

#if !WENDREL_SANITIZED

extern "C" {

// The allocator's own names for the replaced functions.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

static void* counted(void* block)
{
    sAllocated.fetch_add(::malloc_usable_size(block), std::memory_order_relaxed);
    return block;
}

void* malloc(size_t size)
{
    return counted(__libc_malloc(size));
}

void* calloc(size_t count, size_t size)
{
    return counted(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size)
{
    const size_t before = ::malloc_usable_size(block);
    void* moved = __libc_realloc(block, size);
    // A block that could not grow is still there.
    if (!moved && size != 0)
        return nullptr;
    sAllocated.fetch_sub(before, std::memory_order_relaxed);
    return counted(moved);
}

void* memalign(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    constexpr int kNoMemory = 12;
    *block = counted(__libc_memalign(alignment, size));
    return *block ? 0 : kNoMemory;
}

void free(void* block)
{
    sAllocated.fetch_sub(::malloc_usable_size(block), std::memory_order_relaxed);
    __libc_free(block);
}

}  // extern "C"

#endif

namespace integration
{

namespace
{

uint64_t residentBytes()
{
    unsigned long long pages = 0;
    if (FILE* file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*u %llu", &pages) != 1)
            pages = 0;
        std::fclose(file);
    }
    return pages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

void keepHeapSmall()
{
    ::mallopt(M_ARENA_MAX, 2);
    ::mallopt(M_MMAP_THRESHOLD, 65536);
    ::mallopt(M_TRIM_THRESHOLD, 65536);
}

Memory measureMemory()
{
    ::malloc_trim(0);
    return {sAllocated, residentBytes()};
}

Memory meanOf(const std::vector<Memory>& samples, size_t first, size_t end)
{
    Memory mean;
    for (size_t i = first; i < end; ++i) {
        mean.allocated += samples[i].allocated;
        mean.resident += samples[i].resident;
    }
    mean.allocated /= end - first;
    mean.resident /= end - first;
    return mean;
}

}  // namespace integration
