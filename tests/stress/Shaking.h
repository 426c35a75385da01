/// Yields at random wherever the library takes or releases a lock, waits or wakes: replaces, for
/// a whole test program, the platform's mutex locker and wait condition.
#ifndef WENDREL_TESTS_STRESS_SHAKING_H
#define WENDREL_TESTS_STRESS_SHAKING_H

#include <cstdint>

namespace stress
{

/// Seeds the yields of the calling thread. A thread that does not call it is not disturbed.
void shakeThisThread(uint64_t seed);

/// Perhaps lets other threads run now. For a program's own points.
void shake();

struct ShakingCounts
{
    uint64_t yields = 0;
    uint64_t waits = 0;    ///< on conditions, without a timeout
    uint64_t waiting = 0;  ///< threads in such a wait at this moment
};

ShakingCounts shakingCounts();

}  // namespace stress

#endif
