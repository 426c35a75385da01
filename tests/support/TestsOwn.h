// Separates the calls of the test support from the calls of the library: calls made in between are
// neither counted nor made to fail (support/FailingCalls). Without effect in other programs.
#ifndef WENDREL_TESTS_SUPPORT_TESTSOWN_H
#define WENDREL_TESTS_SUPPORT_TESTSOWN_H

namespace qv::tests
{

// During its lifetime the calls of its thread are the tests' own.
class TestsOwn
{
public:
    TestsOwn() { ++sDepth; }
    ~TestsOwn() { --sDepth; }
    TestsOwn(const TestsOwn&) = delete;
    TestsOwn& operator=(const TestsOwn&) = delete;

    static bool isActive() { return sDepth != 0; }

private:
    friend class LibrarysOwn;
    static inline constinit thread_local int sDepth = 0;
};

// The way back, for a support class that calls the library.
class LibrarysOwn
{
public:
    LibrarysOwn() : mBefore(TestsOwn::sDepth) { TestsOwn::sDepth = 0; }
    ~LibrarysOwn() { TestsOwn::sDepth = mBefore; }
    LibrarysOwn(const LibrarysOwn&) = delete;
    LibrarysOwn& operator=(const LibrarysOwn&) = delete;

private:
    int mBefore;
};

}  // namespace qv::tests

#endif
