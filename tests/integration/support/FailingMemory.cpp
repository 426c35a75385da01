// The functions take the place of the standard library's in the whole program.

#include "FailingMemory.h"

#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace integration
{
namespace
{

constinit thread_local bool tIsExempt = false;

std::atomic<size_t> gNumber{0};  // 0: none fails
std::atomic<bool> gFromThenOn{false};
std::atomic<size_t> gCalls{0};
std::atomic<bool> gCountsOpenSsl{false};

bool failsNow()
{
    const size_t number = gNumber;
    if (number == 0 || tIsExempt)
        return false;
    const size_t call = gCalls.fetch_add(1) + 1;
    return gFromThenOn ? call >= number : call == number;
}

void* allocateForOpenSsl(size_t size, const char*, int)
{
    return gCountsOpenSsl && failsNow() ? nullptr : std::malloc(size);
}

void* reallocateForOpenSsl(void* memory, size_t size, const char*, int)
{
    return gCountsOpenSsl && failsNow() ? nullptr : std::realloc(memory, size);
}

void freeForOpenSsl(void* memory, const char*, int)
{
    std::free(memory);
}

// Before the first allocation of OpenSSL.
const bool kReplacesOpenSsl =
    ::CRYPTO_set_mem_functions(&allocateForOpenSsl, &reallocateForOpenSsl, &freeForOpenSsl) == 1;

}  // namespace

bool countOpenSsl(bool isCounted)
{
    gCountsOpenSsl = isCounted;
    return kReplacesOpenSsl;
}

void exemptThisThread()
{
    tIsExempt = true;
}

FailNthAllocation::FailNthAllocation(size_t number, bool fromThenOn) : mNumber(number)
{
    gCalls = 0;
    gFromThenOn = fromThenOn;
    gNumber = number;
}

FailNthAllocation::~FailNthAllocation()
{
    gNumber = 0;
}

bool FailNthAllocation::hasFailed() const
{
    return gCalls >= mNumber;
}

}  // namespace integration

void* operator new(size_t size)
{
    if (!integration::failsNow()) {
        if (void* const memory = std::malloc(size == 0 ? 1 : size))
            return memory;
    }
    throw std::bad_alloc();
}

void* operator new[](size_t size)
{
    return operator new(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return integration::failsNow() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new[](size_t size, const std::nothrow_t& tag) noexcept
{
    return operator new(size, tag);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    std::free(memory);
}
