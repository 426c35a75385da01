// Waiting until woken, and timeouts of every length.

#include <qvSystem/qvWaitCondition.h>

#include <qvSystem/qvMutex.h>

#include <gtest/gtest.h>
#include <support/Waiting.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

using Clock = std::chrono::steady_clock;

// State shared by a test and its waiting threads.
struct Meeting
{
    qvMutex mutex;
    qvWaitCondition changed;
    int arrived = 0;      // guarded by mutex
    bool opened = false;  // guarded by mutex
    int timedOut = 0;     // guarded by mutex
    pid_t waiter = 0;     // guarded by mutex

    void waitUntilOpened(unsigned long timeoutMs)
    {
        qvMutexLocker locker(&mutex);
        ++arrived;
        waiter = gettid();
        while (!opened) {
            if (!changed.wait(&mutex, timeoutMs)) {
                ++timedOut;
                return;
            }
        }
    }

    // Once the mutex is free again, all of these wait.
    bool haveArrived(int count)
    {
        qvMutexLocker locker(&mutex);
        return arrived == count;
    }

    void open()
    {
        qvMutexLocker locker(&mutex);
        opened = true;
        changed.wakeAll();
    }
};

TEST(qvWaitCondition, TimesOutNoEarlierThanAsked)
{
    for (const unsigned long timeoutMs : {0UL, 1UL, 60UL}) {
        SCOPED_TRACE(timeoutMs);
        qvMutex mutex;
        qvWaitCondition never;
        qvMutexLocker locker(&mutex);
        const auto begin = Clock::now();
        while (never.wait(&mutex, timeoutMs)) {
            // woken without reason: once more
        }
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(timeoutMs));
    }
}

TEST(qvWaitCondition, LongTimeoutsDoNotEndAtOnce)
{
    const unsigned long rows[] = {
        kLimitMs,
        2147483647UL,
        2147483648UL,
        4294967295UL,
        static_cast<unsigned long>(LONG_MAX) / 1000000,  // the end of a count of nanoseconds
        static_cast<unsigned long>(LONG_MAX),
        static_cast<unsigned long>(LONG_MAX) + 1,
        qvWaitCondition::kNoTimeout - 1,
        qvWaitCondition::kNoTimeout,
    };
    for (const unsigned long timeoutMs : rows) {
        SCOPED_TRACE(timeoutMs);
        Meeting meeting;
        std::thread waiter([&] { meeting.waitUntilOpened(timeoutMs); });
        EXPECT_TRUE(waitUntil([&] { return meeting.haveArrived(1); }));
        meeting.open();
        waiter.join();
        EXPECT_EQ(meeting.timedOut, 0);
    }
}

TEST(qvWaitCondition, NoTimeoutIsTheLargestNumber)
{
    EXPECT_EQ(qvWaitCondition::kNoTimeout, ULONG_MAX);
}

TEST(qvWaitCondition, WakesEveryWaitingThread)
{
    Meeting meeting;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 5; ++i)
        waiters.emplace_back([&] { meeting.waitUntilOpened(kLimitMs); });
    EXPECT_TRUE(waitUntil([&] { return meeting.haveArrived(5); }));
    meeting.open();
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(meeting.timedOut, 0);
}

TEST(qvWaitCondition, WakesOneThreadAfterTheOther)
{
    constexpr int kWaiters = 5;
    qvMutex mutex;
    qvWaitCondition changed;
    int waiting = 0;
    int wokenUp = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
        waiters.emplace_back([&] {
            qvMutexLocker locker(&mutex);
            ++waiting;
            EXPECT_TRUE(changed.wait(&mutex, kLimitMs));
            ++wokenUp;
        });
    const auto count = [&](const int& counter) {
        qvMutexLocker locker(&mutex);
        return counter;
    };
    EXPECT_TRUE(waitUntil([&] { return count(waiting) == kWaiters; }));
    for (int i = 1; i <= kWaiters; ++i) {
        EXPECT_LT(count(wokenUp), kWaiters);
        changed.wakeOne();
        EXPECT_TRUE(waitUntil([&] { return count(wokenUp) >= i; }));
    }
    for (auto& waiter : waiters)
        waiter.join();
}

TEST(qvWaitCondition, WakesWithoutTheMutexHeld)
{
    Meeting meeting;
    std::thread waiter([&] { meeting.waitUntilOpened(kLimitMs); });
    EXPECT_TRUE(waitUntil([&] { return meeting.haveArrived(1); }));
    {
        qvMutexLocker locker(&meeting.mutex);
        meeting.opened = true;
    }
    meeting.changed.wakeAll();
    waiter.join();
    EXPECT_EQ(meeting.timedOut, 0);
}

TEST(qvWaitCondition, ReleasesTheMutexWhileItWaitsAndHoldsItAfterwards)
{
    Meeting meeting;
    int value = 0;
    std::thread waiter([&] {
        meeting.waitUntilOpened(kLimitMs);
        qvMutexLocker locker(&meeting.mutex);
        EXPECT_EQ(value, 1000);
    });
    EXPECT_TRUE(waitUntil([&] { return meeting.haveArrived(1); }));
    std::vector<std::thread> others;
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
            for (int round = 0; round < 250; ++round) {
                qvMutexLocker locker(&meeting.mutex);
                ++value;
                meeting.changed.wakeAll();
            }
        });
    }
    for (auto& other : others)
        other.join();
    meeting.open();
    waiter.join();
    EXPECT_EQ(meeting.timedOut, 0);
}

// The system call in which a thread sleeps, as the kernel reports it: number, then arguments.
struct Sleep
{
    long call = -1;
    unsigned long operation = 0;
};

Sleep SleepOf(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    std::string call, address, operation;
    Sleep sleep;
    if (file >> call >> address >> operation && call != "running") {
        sleep.call = std::strtol(call.c_str(), nullptr, 10);
        sleep.operation = std::strtoul(operation.c_str(), nullptr, 16);
    }
    return sleep;
}

TEST(qvWaitCondition, MeasuresTimeoutsByTheMonotonicClock)
{
    Meeting meeting;
    std::thread waiter([&] { meeting.waitUntilOpened(kLimitMs); });
    EXPECT_TRUE(waitUntil([&] { return meeting.haveArrived(1); }));
    if (!std::ifstream("/proc/self/task/" + std::to_string(meeting.waiter) + "/syscall")) {
        meeting.open();
        waiter.join();
        GTEST_SKIP() << "the kernel does not tell what a thread sleeps in";
    }
    Sleep sleep;
    EXPECT_TRUE(waitUntil([&] {
        sleep = SleepOf(meeting.waiter);
        return sleep.call == SYS_futex && (sleep.operation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
    })) << sleep.call;
    EXPECT_EQ(sleep.operation & FUTEX_CLOCK_REALTIME, 0u);
    meeting.open();
    waiter.join();
    EXPECT_EQ(meeting.timedOut, 0);
}

}  // namespace
}  // namespace qv::tests
