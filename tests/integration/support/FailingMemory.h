/// Allocations of the threads of a server, one of which fails, or all from one on.
#ifndef WENDREL_TESTS_INTEGRATION_FAILINGMEMORY_H
#define WENDREL_TESTS_INTEGRATION_FAILINGMEMORY_H

#include <cstddef>

namespace integration
{

/// The calling thread is one of the test: its allocations are neither counted nor do they fail.
void exemptThisThread();

/// Whether allocations by OpenSSL count as those by `operator new`; at the start they do not. False
/// when OpenSSL has allocated before it could be asked to use the functions of the test.
bool countOpenSsl(bool isCounted);

/// From its construction on the allocations by `operator new` of all other threads are counted, and
/// the given one fails; with `fromThenOn` all later ones, too, until the object is destroyed. One
/// object at a time.
class FailNthAllocation
{
public:
    FailNthAllocation(size_t number, bool fromThenOn);
    ~FailNthAllocation();
    FailNthAllocation(const FailNthAllocation&) = delete;
    FailNthAllocation& operator=(const FailNthAllocation&) = delete;

    bool hasFailed() const;

private:
    const size_t mNumber;
};

}  // namespace integration

#endif
