/// The memory of a process, which must be the same after many servers as before the first.
#ifndef WENDREL_TESTS_INTEGRATION_PROCESSSTATE_H
#define WENDREL_TESTS_INTEGRATION_PROCESSSTATE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace integration
{

/// Has the allocator cache less, so that the resident memory is closer to the memory in use.
void keepHeapSmall();

/// In bytes.
struct Memory
{
    uint64_t allocated = 0;  ///< and not freed; 0 where a sanitizer has the heap
    uint64_t resident = 0;   ///< of the process, after the heap has returned unused pages
};

Memory measureMemory();

/// The mean of the samples from `first` up to `end`, not included.
Memory meanOf(const std::vector<Memory>& samples, size_t first, size_t end);

}  // namespace integration

#endif
