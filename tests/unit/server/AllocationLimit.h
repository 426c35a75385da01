// Makes large allocations fail: replaces the operator new of the whole test program.
#ifndef WENDREL_TESTS_ALLOCATIONLIMIT_H
#define WENDREL_TESTS_ALLOCATIONLIMIT_H

#include <cstddef>

namespace qv::tests
{

// While it lives, an allocation of `bytes` or more on its thread throws std::bad_alloc.
class AllocationLimit
{
public:
    explicit AllocationLimit(size_t bytes);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace qv::tests

#endif
