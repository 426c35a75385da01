// The crossings, and the allocation functions of this program.

#include "Boundary.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace
{

using Step = void (*)(void*);

constexpr size_t kMaxTraced = 256;
constexpr size_t kMaxFrames = 48;

struct Traced
{
    size_t bytes;
    int frames;
    std::array<void*, kMaxFrames> addresses;
};

bool gInLibrary = false;
size_t gDepth = 0;
bool gTracing = false;
qv::bench::Allocations gAllocations;
size_t gTracedCount = 0;
std::array<Traced, kMaxTraced> gTraced;

void trace(size_t bytes)
{
    if (gTracedCount == kMaxTraced) {
        std::fputs("more allocations than can be traced\n", stderr);
        std::_Exit(EXIT_FAILURE);
    }
    Traced& traced = gTraced[gTracedCount++];
    traced.bytes = bytes;
    traced.frames = backtrace(traced.addresses.data(), static_cast<int>(kMaxFrames));
}

inline void note(size_t bytes)
{
    if (!gInLibrary)
        return;
    ++gAllocations.count;
    gAllocations.bytes += bytes;
    if (gTracing) {
        gInLibrary = false;
        trace(bytes);
        gInLibrary = true;
    }
}

}  // namespace

extern "C" {

// The functions of the C library under their reserved names, because this program replaces them.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

// Freed by the C library: its cost counts as that of the library.
void* malloc(size_t size) noexcept
{
    note(size);
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    note(count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept
{
    note(size);
    return __libc_realloc(memory, size);
}

void* memalign(size_t alignment, size_t size) noexcept
{
    note(size);
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    return memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept
{
    *memory = memalign(alignment, size);
    return *memory ? 0 : ENOMEM;
}

// callgrind switches only when a function is entered that is not active yet: one for each crossing
// that can be under way. The store after the call keeps the frame until the call has ended.
#define WENDREL_BUDGET_CROSSING(number)                                                            \
    WENDREL_BENCH_AS_WRITTEN void wendrelBudgetCross##number(Step step, void* closure)             \
    {                                                                                              \
        gInLibrary = !gInLibrary;                                                                  \
        step(closure);                                                                             \
        gInLibrary = !gInLibrary;                                                                  \
    }
WENDREL_BUDGET_CROSSING(0)
WENDREL_BUDGET_CROSSING(1)
WENDREL_BUDGET_CROSSING(2)
WENDREL_BUDGET_CROSSING(3)
}

namespace qv::bench
{
namespace
{

constexpr std::array kCrossings = {&wendrelBudgetCross0, &wendrelBudgetCross1, &wendrelBudgetCross2,
                                   &wendrelBudgetCross3};

void printPlace(void* address)
{
    Dl_info info{};
    if (dladdr(address, &info) == 0)
        return;
    // The call stands before the address that is returned to.
    const auto offset =
        static_cast<const char*>(address) - 1 - static_cast<const char*>(info.dli_fbase);
    std::printf(" %s+%#tx", info.dli_fname, offset);
}

}  // namespace

bool IsInLibrary()
{
    return gInLibrary;
}

void Cross(Step step, void* closure)
{
    const auto crossing = kCrossings.at(gDepth);
    ++gDepth;
    crossing(step, closure);
    --gDepth;
}

Allocations CountedAllocations()
{
    return gAllocations;
}

void TraceAllocations()
{
    // The first call loads a library.
    void* place = nullptr;
    backtrace(&place, 1);
    gTracing = true;
}

void PrintTracedAllocations()
{
    gTracing = false;
    for (size_t i = 0; i < gTracedCount; ++i) {
        std::printf("%zu", gTraced[i].bytes);
        std::for_each_n(gTraced[i].addresses.begin(), gTraced[i].frames, &printPlace);
        std::putchar('\n');
    }
}

}  // namespace qv::bench
