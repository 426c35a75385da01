// The replaced allocation, apart from the tests so that the compiler does not see both ends.

#include "server/AllocationLimit.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace
{

constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
thread_local size_t gLimitBytes = kNoLimit;

}  // namespace

namespace qv::tests
{

AllocationLimit::AllocationLimit(size_t bytes)
{
    gLimitBytes = bytes;
}

AllocationLimit::~AllocationLimit()
{
    gLimitBytes = kNoLimit;
}

}  // namespace qv::tests

void* operator new(size_t size)
{
    if (size < gLimitBytes)
        if (void* memory = std::malloc(size != 0 ? size : 1))
            return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}
