// Makes the first, second, ... call that an operation makes fail, until one run goes through
// without any: replaces operator new, malloc, fopen and the start of threads for a whole test
// program. Support classes bring in other calls with `ShouldFail`.
//
// Under a sanitizer malloc is the sanitizer's and does not fail; operator new does.
#ifndef WENDREL_TESTS_FAILINGCALLS_H
#define WENDREL_TESTS_FAILINGCALLS_H

#include "support/TestsOwn.h"

#include <cstddef>
#include <functional>
#include <new>
#include <system_error>

namespace qv::tests
{

// Kinds of calls that can fail.
enum class Failing { New, Malloc, ThreadStart, Send, Receive, Poll, Open, Daemon };
inline constexpr size_t kFailingKinds = 8;

// False under a sanitizer.
bool CanFailMalloc();

// While one is alive, no thread of the program can start another.
class NoThreads
{
public:
    NoThreads();
    ~NoThreads();
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;
};

// Counts a call of the thread under test; true when it is the one that has to fail.
bool ShouldFail(Failing kind);

// One run of an operation. The body of the test creates its objects, calls this with the operation,
// and checks the objects. They are destroyed when the body returns.
class Attempt
{
public:
    // Counts the calls of `operation`, and lets one fail. False when std::bad_alloc, or
    // std::system_error for want of a thread, has come out of it.
    template <typename Operation> bool operator()(Operation&& operation)
    {
        try {
            const Armed armed;
            operation();
            return true;
        } catch (const std::bad_alloc&) {
            takeException();
        } catch (const std::system_error& error) {
            takeException();
            checkCode(error);
        }
        return false;
    }

    // Whether a call has failed; one of this kind.
    bool hasFailed() const;
    bool hasFailed(Failing kind) const;

    // Likewise for either kind of allocation.
    bool hasLackedMemory() const { return hasFailed(Failing::New) || hasFailed(Failing::Malloc); }

    // Ignores memory from malloc that is not freed in this run: OpenSSL keeps some for later.
    void forgiveMalloc();

private:
    class Armed
    {
    public:
        Armed();
        ~Armed();
    };

    static void takeException();
    static void checkCode(const std::system_error& error);
};

enum class Points { Some, None };

// A run may take only so long from now on, instead of a minute.
void ShortenRuns(unsigned int seconds);

// Runs `body` once without a failure, then with the first call failing, the second, and so on up
// to the first run without: each time once with this call alone, and once with all of its kind
// from there on. Fails the test when
// - there is no end to it, or no call that could fail (with Points::None: when there is one);
// - a run takes a minute, which ends the program;
// - memory that the thread allocated during the run is still there after it, and again when the
//   run is repeated;
// - an exception comes although no call failed, or one that is not passed through as it was.
// Prints a line with the number of calls that failed.
void FailEachCall(const char* operation, const std::function<void(Attempt&)>& body,
                  Points points = Points::Some);

}  // namespace qv::tests

#endif
