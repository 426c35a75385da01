// The boundary of the library: code inside is counted, code of daemon and application is not.
//
// callgrind is told to switch its collection on and off at the functions named wendrelBudgetCross
// and the number of the crossing; the allocations are counted by the functions of the C library
// that this program defines in its place. One thread only.
#ifndef WENDREL_BENCH_BUDGET_BOUNDARY_H
#define WENDREL_BENCH_BUDGET_BOUNDARY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

// For functions that callgrind must find: neither inlined nor merged.
#if defined(__clang__)
#define WENDREL_BENCH_AS_WRITTEN [[clang::optnone, gnu::noinline]]
#else
#define WENDREL_BENCH_AS_WRITTEN [[gnu::noipa]]
#endif

namespace qv::bench
{

bool IsInLibrary();

// Calls `step` on the other side of the line.
void Cross(void (*step)(void*), void* closure);

// A call into the library. A call from inside the library does not cross the boundary.
template <typename Code> void InLibrary(Code&& code)
{
    if (IsInLibrary())
        return code();
    Cross([](void* it) { (*static_cast<std::remove_reference_t<Code>*>(it))(); },
          const_cast<void*>(static_cast<const void*>(std::addressof(code))));
}

// A call of the library to daemon, system or application.
template <typename Code> void Outside(Code&& code)
{
    if (!IsInLibrary())
        return code();
    Cross([](void* it) { (*static_cast<std::remove_reference_t<Code>*>(it))(); },
          const_cast<void*>(static_cast<const void*>(std::addressof(code))));
}

struct Allocations
{
    uint64_t count = 0;
    uint64_t bytes = 0;
};

// The allocations of the library since the start of the program.
Allocations CountedAllocations();

// Remembers each allocation of the library from now on, with where it was made.
void TraceAllocations();

// One line each on standard output: the size and then, innermost first, the places as the file of
// the code and the offset in it.
void PrintTracedAllocations();

}  // namespace qv::bench

#endif
