#include "WorkerPool.h"

#include <support/Waiting.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qv::kit
{
namespace
{

using tests::Channel;
using tests::Latch;
using tests::waitUntil;

// The pool does not look into them.
Exchange& exchange(uintptr_t number)
{
    return *reinterpret_cast<Exchange*>(number * 64);
}

uintptr_t numberOf(const Exchange& exchange)
{
    return reinterpret_cast<uintptr_t>(&exchange) / 64;
}

TEST(WorkerPool, ServesInOrder)
{
    Channel<uintptr_t> served;
    WorkerPool pool([&](Exchange& e) { served.push(numberOf(e)); });
    EXPECT_FALSE(pool.submit(exchange(1)));
    for (int round = 0; round < 2; ++round) {
        pool.start(1, 100);
        for (uintptr_t i = 1; i <= 50; ++i)
            EXPECT_TRUE(pool.submit(exchange(i)));
        for (uintptr_t i = 1; i <= 50; ++i)
            EXPECT_EQ(served.pop(), i);
        pool.stop();
        EXPECT_FALSE(pool.submit(exchange(1)));
    }
}

TEST(WorkerPool, RefusesWhatItsQueueCannotHold)
{
    Latch latch;
    Channel<int> running;
    std::atomic<int> served{0};
    WorkerPool pool([&](Exchange&) {
        running.push(1);
        latch.wait();
        ++served;
    });
    pool.start(1, 2);
    EXPECT_TRUE(pool.submit(exchange(1)));
    ASSERT_TRUE(running.pop());
    EXPECT_TRUE(pool.submit(exchange(2)));
    EXPECT_TRUE(pool.submit(exchange(3)));
    EXPECT_FALSE(pool.submit(exchange(4)));
    latch.open();
    pool.stop();
    EXPECT_EQ(served, 3);
}

TEST(WorkerPool, RequestsAndTasksTakeTurns)
{
    std::vector<std::string> order;
    Latch latch;
    Channel<int> running;
    WorkerPool pool([&](Exchange& e) { order.push_back("r" + std::to_string(numberOf(e))); });
    pool.start(1, 100);
    EXPECT_TRUE(pool.run([&] {
        running.push(1);
        latch.wait();
    }));
    ASSERT_TRUE(running.pop());
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_TRUE(pool.run([&order, i] { order.push_back("t" + std::to_string(i)); }));
    for (uintptr_t i = 1; i <= 3; ++i)
        EXPECT_TRUE(pool.submit(exchange(i)));
    latch.open();
    pool.stop();
    EXPECT_EQ(order, (std::vector<std::string>{"r1", "t1", "r2", "t2", "r3", "t3"}));
    EXPECT_FALSE(pool.run([] { ADD_FAILURE() << "the pool is stopped"; }));
}

// A thread that is not woken would leave the others alone with all the work.
TEST(WorkerPool, WakesAsManyThreadsAsThereAreRequests)
{
    constexpr int kThreads = 8;
    for (int round = 0; round < 20; ++round) {
        Latch latch;
        std::atomic<int> running{0};
        WorkerPool pool([&](Exchange&) {
            ++running;
            latch.wait();
        });
        pool.start(kThreads, 100);
        for (uintptr_t i = 1; i <= kThreads; ++i)
            EXPECT_TRUE(pool.submit(exchange(i)));
        EXPECT_TRUE(waitUntil([&] { return running == kThreads; }));
        latch.open();
    }
}

TEST(WorkerPool, WakesAsManyThreadsAsThereAreTasks)
{
    constexpr int kThreads = 8;
    for (int round = 0; round < 20; ++round) {
        Latch latch;
        std::atomic<int> running{0};
        WorkerPool pool([](Exchange&) {});
        pool.start(kThreads, 100);
        for (int i = 0; i < kThreads; ++i)
            EXPECT_TRUE(pool.run([&] {
                ++running;
                latch.wait();
            }));
        EXPECT_TRUE(waitUntil([&] { return running == kThreads; }));
        latch.open();
    }
}

TEST(WorkerPool, ServesEachRequestOnceWithManySubmitters)
{
    constexpr uintptr_t kEach = 5000;
    constexpr uintptr_t kSubmitters = 4;
    std::array<std::atomic<int>, kEach * kSubmitters + 1> served{};
    {
        WorkerPool pool([&](Exchange& e) { ++served[numberOf(e)]; });
        pool.start(3, kEach * kSubmitters);
        std::vector<std::thread> submitters;
        for (uintptr_t s = 0; s < kSubmitters; ++s)
            submitters.emplace_back([&, s] {
                for (uintptr_t i = 1; i <= kEach; ++i)
                    EXPECT_TRUE(pool.submit(exchange(s * kEach + i)));
            });
        for (std::thread& submitter : submitters)
            submitter.join();
    }
    for (size_t i = 1; i < served.size(); ++i)
        ASSERT_EQ(served[i], 1) << i;
}

}  // namespace
}  // namespace qv::kit
