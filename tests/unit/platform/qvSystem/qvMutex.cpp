// The lock and its holder.

#include <qvSystem/qvMutex.h>

#include <gtest/gtest.h>
#include <support/BackgroundCall.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

// Whether another thread gets the lock.
bool IsFree(qvMutex& mutex)
{
    BackgroundCall taking([&mutex] { qvMutexLocker locker(&mutex); });
    const bool isFree = taking.waitForEnd();
    if (!isFree)
        std::abort();  // it would block for good
    return isFree;
}

TEST(qvMutex, LetsInOneThreadAtATime)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    qvMutex mutex;
    int count = 0;
    std::atomic<int> inside{0};
    std::atomic<bool> shared{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                mutex.lock();
                shared = shared || inside.fetch_add(1) != 0;
                ++count;
                inside.fetch_sub(1);
                mutex.unlock();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(shared);
    EXPECT_EQ(count, kThreads * kRounds);
}

TEST(qvMutex, MayBeDestroyedByTheThreadThatTookItLast)
{
    for (int round = 0; round < 500; ++round) {
        auto mutex = std::make_unique<qvMutex>();
        std::atomic<bool> taken{false};
        std::thread first([&taken, held = mutex.get()] {
            held->lock();
            taken = true;
            held->unlock();
        });
        while (!taken)
            std::this_thread::yield();
        mutex->lock();
        mutex->unlock();
        mutex.reset();
        first.join();
    }
}

TEST(qvMutexLocker, ReleasesAtTheEndOfItsBlock)
{
    qvMutex mutex;
    {
        qvMutexLocker locker(&mutex);
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(qvMutexLocker, HoldsTheLockUntilUnlockAndAgainAfterRelock)
{
    qvMutex mutex;
    std::atomic<int> step{0};
    int seen = -1;
    qvMutexLocker locker(&mutex);
    std::thread other([&] {
        qvMutexLocker theirs(&mutex);
        seen = step;
    });
    step = 1;
    locker.unlock();
    other.join();
    EXPECT_EQ(seen, 1);

    locker.relock();
    step = 2;
    std::thread third([&] {
        qvMutexLocker theirs(&mutex);
        seen = step;
    });
    step = 3;
    locker.unlock();
    third.join();
    EXPECT_EQ(seen, 3);
}

// The analysis reports calls that the locker ignores on purpose.
void unlockAndRelockTwice(qvMutex& mutex) QV_NO_THREAD_SAFETY_ANALYSIS
{
    qvMutexLocker locker(&mutex);
    locker.relock();  // would wait for itself
    locker.unlock();
    locker.unlock();  // would release a lock of someone else
    EXPECT_TRUE(IsFree(mutex));
    locker.relock();
    locker.relock();
}

TEST(qvMutexLocker, UnlockAndRelockTwiceChangeNothing)
{
    qvMutex mutex;
    unlockAndRelockTwice(mutex);
    EXPECT_TRUE(IsFree(mutex));
}

// Likewise: it knows only lockers that are local variables.
void destroyAfterTheMutex() QV_NO_THREAD_SAFETY_ANALYSIS
{
    qvMutexLocker* locker = nullptr;
    {
        qvMutex mutex;
        locker = new qvMutexLocker(&mutex);
        locker->unlock();
    }
    delete locker;  // AddressSanitizer reports a use of the deleted mutex
}

TEST(qvMutexLocker, LeavesAnUnlockedMutexAloneWhenItDies)
{
    destroyAfterTheMutex();
}

}  // namespace
}  // namespace qv::tests
