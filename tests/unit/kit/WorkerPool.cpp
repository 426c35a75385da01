// Threads that run tasks.

#include <Wendrel/kit/WorkerPool.h>

#include "Support.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace qv::kit::tests
{
namespace
{

TEST(WorkerPool, RunsTasksInTheirOrderOnOneThread)
{
    std::vector<int> ran;
    {
        WorkerPool pool(1, 100);
        for (int i = 0; i < 100; ++i)
            ASSERT_TRUE(pool.submit([&ran, i] { ran.push_back(i); }));
    }
    std::vector<int> expected(100);
    for (int i = 0; i < 100; ++i)
        expected[static_cast<size_t>(i)] = i;
    EXPECT_EQ(ran, expected);
}

TEST(WorkerPool, RunsAsManyTasksAtOnceAsItHasThreads)
{
    for (const unsigned int threads : {1u, 2u, 7u}) {
        SCOPED_TRACE(threads);
        Latch latch;
        WorkerPool pool(threads, 1);
        for (unsigned int i = 0; i < threads; ++i) {
            ASSERT_TRUE(pool.submit([&latch] { latch.wait(); }));
            ASSERT_TRUE(latch.waitForArrivals(i + 1));
        }
        std::atomic<bool> oneMoreRan{false};
        ASSERT_TRUE(pool.submit([&oneMoreRan] { oneMoreRan = true; }));
        EXPECT_EQ(pool.getQueuedCount(), 1u);
        EXPECT_FALSE(oneMoreRan);
        latch.open();
        pool.stop();
        EXPECT_TRUE(oneMoreRan);
    }
}

TEST(WorkerPool, HasOneThreadWhenAskedForNone)
{
    std::promise<void> ran;
    WorkerPool pool(0, 1);
    ASSERT_TRUE(pool.submit([&ran] { ran.set_value(); }));
    EXPECT_EQ(ran.get_future().wait_for(kLimit), std::future_status::ready);
}

TEST(WorkerPool, RefusesWhatTheQueueCannotHold)
{
    for (const size_t limit : {size_t(0), size_t(1), size_t(3)}) {
        SCOPED_TRACE(limit);
        Latch latch;
        std::atomic<size_t> ran{0};
        WorkerPool pool(1, limit);
        if (limit == 0) {
            EXPECT_FALSE(pool.submit([&ran] { ++ran; }));
            pool.stop();
            EXPECT_EQ(ran, 0u);
            continue;
        }
        ASSERT_TRUE(pool.submit([&latch] { latch.wait(); }));
        ASSERT_TRUE(latch.waitForArrivals(1));
        for (size_t i = 0; i < limit; ++i)
            EXPECT_TRUE(pool.submit([&ran] { ++ran; }));
        EXPECT_FALSE(pool.submit([&ran] { ran += 100; }));
        EXPECT_EQ(pool.getQueuedCount(), limit);
        latch.open();
        pool.stop();
        EXPECT_EQ(ran, limit);
        EXPECT_EQ(pool.getQueuedCount(), 0u);
    }
}

TEST(WorkerPool, TakesTasksAgainWhenTheQueueHasEmptied)
{
    Latch latch;
    std::promise<void> ran;
    WorkerPool pool(1, 1);
    ASSERT_TRUE(pool.submit([&latch] { latch.wait(); }));
    ASSERT_TRUE(latch.waitForArrivals(1));
    ASSERT_TRUE(pool.submit([&ran] { ran.set_value(); }));
    ASSERT_FALSE(pool.submit([] {}));
    latch.open();
    ASSERT_EQ(ran.get_future().wait_for(kLimit), std::future_status::ready);
    EXPECT_TRUE(pool.submit([] {}));
}

TEST(WorkerPool, StopRunsWhatIsQueuedAndTakesNothingMore)
{
    Latch latch;
    std::atomic<int> ran{0};
    WorkerPool pool(2, 1000);
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(pool.submit([&latch] { latch.wait(); }));
    ASSERT_TRUE(latch.waitForArrivals(2));
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(pool.submit([&ran] { ++ran; }));
    std::thread stopper([&pool] { pool.stop(); });
    // Refused from the moment the pool knows that it stops, with tasks still queued.
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (pool.submit([] {}) && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_FALSE(pool.submit([&ran] { ran += 10000; }));
    EXPECT_EQ(ran, 0);
    latch.open();
    stopper.join();
    EXPECT_EQ(ran, 1000);
    EXPECT_FALSE(pool.submit([&ran] { ran += 10000; }));
    pool.stop();
    EXPECT_EQ(ran, 1000);
}

TEST(WorkerPool, ReleasesATaskWithWhatItHoldsAsSoonAsItHasRun)
{
    std::promise<void> released;
    WorkerPool pool(1, 10);
    std::shared_ptr<int> last(new int(1), [&released](int* p) {
        delete p;
        released.set_value();
    });
    ASSERT_TRUE(pool.submit([last] {}));
    last.reset();
    EXPECT_EQ(released.get_future().wait_for(kLimit), std::future_status::ready);
}

// A task may submit another from its destructor: it is released without the pool's lock.
TEST(WorkerPool, ReleasesATaskWithoutItsLock)
{
    std::promise<bool> submitted;
    WorkerPool pool(1, 10);
    std::shared_ptr<int> last(new int(1), [&](int* p) {
        delete p;
        submitted.set_value(pool.submit([] {}));
    });
    ASSERT_TRUE(pool.submit([last] {}));
    last.reset();
    auto result = submitted.get_future();
    ASSERT_EQ(result.wait_for(kLimit), std::future_status::ready);
    EXPECT_TRUE(result.get());
}

TEST(WorkerPool, KeepsNothingOfARefusedTask)
{
    WorkerPool pool(1, 10);
    pool.stop();
    auto held = std::make_shared<int>(1);
    EXPECT_FALSE(pool.submit([held] {}));
    EXPECT_EQ(held.use_count(), 1);
}

TEST(WorkerPool, RunsEachTaskOfManySubmittersOnce)
{
    constexpr size_t kSubmitters = 8;
    constexpr size_t kTasks = 2000;
    std::vector<std::atomic<int>> runs(kSubmitters * kTasks);
    std::atomic<size_t> refused{0};
    {
        WorkerPool pool(4, 64);
        std::vector<std::thread> submitters;
        for (size_t s = 0; s < kSubmitters; ++s) {
            submitters.emplace_back([&, s] {
                for (size_t i = 0; i < kTasks; ++i) {
                    const size_t at = s * kTasks + i;
                    if (!pool.submit([&runs, at] { ++runs[at]; })) {
                        runs[at] = 1;  // refused: counts as done here, and must not run
                        ++refused;
                    }
                }
            });
        }
        for (std::thread& submitter : submitters)
            submitter.join();
    }
    for (size_t i = 0; i < runs.size(); ++i)
        ASSERT_EQ(runs[i], 1) << i;
    EXPECT_LT(refused, runs.size());
}

}  // namespace
}  // namespace qv::kit::tests
