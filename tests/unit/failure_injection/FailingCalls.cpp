// The loop itself: it makes every call fail, and detects leaks and wrong results.

#include "failure_injection/Support.h"

#include <gtest/gtest-spi.h>

#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

// Optimised away, an allocation could not fail.
template <typename T> void Use(T& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

TEST(FailingCalls, FailOneAfterTheOtherAndThenTogether)
{
    std::vector<size_t> succeeded;
    FailEachCall("four allocations, each of which may fail", [&](Attempt& attempt) {
        size_t done = 0;
        attempt([&] {
            for (int i = 0; i < 4; ++i) {
                const std::unique_ptr<int> memory(new (std::nothrow) int);
                done += memory ? 1 : 0;
            }
        });
        const TestsOwn own;
        succeeded.push_back(done);
    });
    // A rehearsal; for each call one run in which it alone fails and one in which all after it fail
    // too; a clean run.
    EXPECT_THAT(succeeded, testing::ElementsAre(4, 3, 0, 3, 1, 3, 2, 3, 3, 4));
}

TEST(FailingCalls, ReachMallocExceptUnderASanitizer)
{
    size_t failed = 0;
    FailEachCall("malloc, calloc, realloc and new", [&](Attempt& attempt) {
        void* memory[3] = {};
        attempt([&] {
            auto one = std::make_unique<int>(1);
            Use(one);
            memory[0] = std::malloc(10);
            Use(memory[0]);
            memory[1] = std::calloc(10, 10);
            Use(memory[1]);
            if (void* moved = std::realloc(memory[0], 100))
                memory[0] = moved;
            Use(memory[0]);
        });
        failed += attempt.hasFailed();
        for (void* each : memory)
            std::free(each);
    });
    EXPECT_EQ(failed, CanFailMalloc() ? 8u : 2u);
    if (!CanFailMalloc())
        std::printf("malloc is the sanitizer's: C allocations do not fail in this program\n");
}

TEST(FailingCalls, LeaveOtherThreadsAndTheTestsOwnWorkAlone)
{
    FailEachCall(
        "allocations of others",
        [](Attempt& attempt) {
            std::mutex mutex;
            std::unique_lock<std::mutex> wait(mutex);
            std::thread other([&] {
                const std::lock_guard<std::mutex> lock(mutex);
                auto memory = std::make_unique<int>(1);
                Use(memory);
            });
            EXPECT_TRUE(attempt([&] {
                wait.unlock();
                other.join();
                const TestsOwn own;
                auto memory = std::make_unique<int>(1);
                Use(memory);
            }));
        },
        Points::None);
}

TEST(FailingCalls, PassOnWhatTheSystemSaysOfThreads)
{
    FailEachCall("the start of a thread", [](Attempt& attempt) {
        std::thread thread;
        const bool started = attempt([&] { thread = std::thread([] {}); });
        EXPECT_EQ(started, !attempt.hasFailed());
        EXPECT_EQ(thread.joinable(), started);
        if (started)
            thread.join();
    });
}

// Detection of leaks and of wrong results.

TEST(FailingCalls, SeeALeak)
{
    static std::list<int*> leaked;
    const auto leak = [](bool (*mayLeak)()) {
        FailEachCall("leaking when the second allocation fails", [&](Attempt& attempt) {
            attempt([&] {
                auto first = std::make_unique<int>(1);
                try {
                    auto second = std::make_unique<int>(2);
                    Use(second);
                } catch (const std::bad_alloc&) {
                    const TestsOwn own;
                    if (mayLeak())
                        leaked.push_back(first.release());
                    throw;
                }
            });
        });
    };
    // Something that is made once and kept is none.
    leak([] { return leaked.empty(); });
    // Now with both ways to fail.
    testing::TestPartResultArray results;
    {
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
        leak([] { return true; });
    }
    ASSERT_EQ(results.size(), 2);
    EXPECT_THAT(results.GetTestPartResult(0).message(), testing::HasSubstr("4 bytes"));
    EXPECT_THAT(results.GetTestPartResult(1).message(), testing::HasSubstr("failing call 2"));
    for (int* each : leaked)
        delete each;
}

TEST(FailingCalls, SeeThatNothingCouldFail)
{
    EXPECT_NONFATAL_FAILURE(FailEachCall("nothing", [](Attempt& attempt) { attempt([] {}); }),
                            "nothing");
}

TEST(FailingCalls, SeeALoopWithoutEnd)
{
    EXPECT_NONFATAL_FAILURE(FailEachCall("more calls with each run",
                                         [calls = 1](Attempt& attempt) mutable {
                                             ++calls;
                                             attempt([&] {
                                                 for (int i = 0; i < calls; ++i)
                                                     delete new (std::nothrow) int;
                                             });
                                         }),
                            "no clean run");
}

TEST(FailingCalls, LetOtherExceptionsThrough)
{
    EXPECT_THROW(FailEachCall("throwing",
                              [](Attempt& attempt) {
                                  attempt([] { throw std::logic_error("a mistake"); });
                              }),
                 std::logic_error);
}

TEST(FailingCallsDeathTest, SeeADeadlock)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ShortenRuns(1);
            FailEachCall("locking twice", [](Attempt& attempt) {
                std::timed_mutex mutex;
                const std::lock_guard<std::timed_mutex> lock(mutex);
                attempt([&] { static_cast<void>(mutex.try_lock_for(std::chrono::hours(1))); });
            });
        },
        "takes too long: locking twice");
}

}  // namespace
}  // namespace qv::tests
