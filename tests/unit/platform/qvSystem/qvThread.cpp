// Threads that start again, their names and texts, and waiting for their end.

#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>
#include <support/BackgroundCall.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

using Clock = std::chrono::steady_clock;

class FunctionThread : public qvThread
{
public:
    explicit FunctionThread(std::function<void()> function) : mFunction(std::move(function)) {}
    ~FunctionThread() override { waitThread(kLimitMs); }

protected:
    void run() override { mFunction(); }

private:
    std::function<void()> mFunction;
};

// One wait on a condition variable whose end is delayed.
struct DelayedWait
{
    Latch begun;      // opened with the mutex still held
    Latch mayReturn;  // passed before the mutex is taken again
};

// The next wait of this thread; null: it is not delayed.
thread_local DelayedWait* tDelayedWait = nullptr;

std::string NameOfCallingThread()
{
    char name[16] = {};
    EXPECT_EQ(pthread_getname_np(pthread_self(), name, sizeof name), 0);
    return name;
}

TEST(qvThread, RunsOnAThreadOfItsOwn)
{
    std::thread::id id;
    FunctionThread thread([&] { id = std::this_thread::get_id(); });
    EXPECT_TRUE(thread.startThread("own"));
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_NE(id, std::thread::id());
    EXPECT_NE(id, std::this_thread::get_id());
}

TEST(qvThread, DoesNotRunBeforeItIsStarted)
{
    std::atomic<int> runs{0};
    {
        FunctionThread thread([&] { ++runs; });
        EXPECT_TRUE(thread.waitThread(0));
        EXPECT_TRUE(thread.waitThread(ULONG_MAX));
    }
    EXPECT_EQ(runs, 0);
}

TEST(qvThread, StartsAgainAfterEachRunHasEnded)
{
    int runs = 0;
    FunctionThread thread([&] { ++runs; });
    for (int round = 1; round <= 50; ++round) {
        ASSERT_TRUE(thread.startThread("again"));
        ASSERT_TRUE(thread.waitThread(kLimitMs));
        ASSERT_EQ(runs, round);
    }
}

TEST(qvThread, StartsNothingWhileARunGoesOn)
{
    std::atomic<int> runs{0};
    Latch latch;
    FunctionThread thread([&] {
        ++runs;
        latch.wait();
    });
    EXPECT_TRUE(thread.startThread("first"));
    EXPECT_FALSE(thread.startThread("second"));
    latch.open();
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(thread.startThread("second"));
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_EQ(runs, 2);
}

TEST(qvThread, WaitsNoLongerThanAsked)
{
    Latch latch;
    FunctionThread thread([&] { latch.wait(); });
    EXPECT_TRUE(thread.startThread("latch"));
    for (const unsigned long timeoutMs : {0UL, 1UL, 40UL}) {
        SCOPED_TRACE(timeoutMs);
        const auto begin = Clock::now();
        EXPECT_FALSE(thread.waitThread(timeoutMs));
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(timeoutMs));
    }
    latch.open();
    EXPECT_TRUE(thread.waitThread(kLimitMs));
}

TEST(qvThread, LongTimeoutsDoNotEndAtOnce)
{
    const unsigned long rows[] = {2147483647UL,
                                  4294967295UL,
                                  static_cast<unsigned long>(LONG_MAX) / 1000000,
                                  static_cast<unsigned long>(LONG_MAX),
                                  static_cast<unsigned long>(LONG_MAX) + 1,
                                  ULONG_MAX - 1,
                                  ULONG_MAX};
    for (const unsigned long timeoutMs : rows) {
        SCOPED_TRACE(timeoutMs);
        // The run ends only when the waiting thread sleeps: a long wait that ended at once would
        // find it running.
        Latch latch;
        FunctionThread thread([&] { latch.wait(); });
        EXPECT_TRUE(thread.startThread("long"));
        BackgroundCall wait([&] { EXPECT_TRUE(thread.waitThread(timeoutMs)); });
        EXPECT_TRUE(wait.isBlocked());
        latch.open();
        ASSERT_TRUE(wait.waitForEnd());
    }
}

TEST(qvThread, CanBeWaitedForByManyThreads)
{
    Latch latch;
    FunctionThread thread([&] { latch.wait(); });
    EXPECT_TRUE(thread.startThread("waited for"));
    std::vector<std::future<bool>> waits;
    for (int i = 0; i < 4; ++i)
        waits.push_back(
            std::async(std::launch::async, [&] { return thread.waitThread(kLimitMs); }));
    latch.open();
    for (auto& wait : waits)
        EXPECT_TRUE(wait.get());
}

TEST(qvThread, WaitsOnlyForTheRunThatItFound)
{
    Latch endOfRuns[2];
    std::atomic<int> runs{0};
    FunctionThread thread([&] { endOfRuns[runs++].wait(); });
    ASSERT_TRUE(thread.startThread("first"));

    DelayedWait wait;
    BackgroundCall waiting([&] {
        tDelayedWait = &wait;
        EXPECT_TRUE(thread.waitThread(ULONG_MAX));
    });
    wait.begun.wait();
    endOfRuns[0].open();
    while (!thread.startThread("second"))
        std::this_thread::yield();
    wait.mayReturn.open();
    EXPECT_TRUE(waiting.waitForEnd());
    EXPECT_FALSE(thread.waitThread(0)) << "the second run has not ended";
    endOfRuns[1].open();
}

TEST(qvThread, NumbersItsRuns)
{
    Latch endOfRuns[2];
    std::atomic<int> runs{0};
    FunctionThread thread([&] { endOfRuns[runs++].wait(); });
    EXPECT_EQ(thread.getRunNumber(), 0u);
    EXPECT_TRUE(thread.waitThread(0, 0));
    ASSERT_TRUE(thread.startThread("first"));
    EXPECT_EQ(thread.getRunNumber(), 1u);
    EXPECT_FALSE(thread.startThread("refused"));
    EXPECT_EQ(thread.getRunNumber(), 1u);
    EXPECT_FALSE(thread.waitThread(0, 1));

    endOfRuns[0].open();
    EXPECT_TRUE(thread.waitThread(kLimitMs, 1));
    ASSERT_TRUE(thread.startThread("second"));
    EXPECT_EQ(thread.getRunNumber(), 2u);
    EXPECT_TRUE(thread.waitThread(0, 1)) << "ended long ago";
    EXPECT_FALSE(thread.waitThread(0, 2));
    endOfRuns[1].open();
    EXPECT_TRUE(thread.waitThread(kLimitMs, 2));
}

TEST(qvThread, NeitherWaitsForNorStartsItselfFromInside)
{
    bool waited = true;
    bool waitedForGood = true;
    bool started = true;
    FunctionThread* self = nullptr;
    FunctionThread thread([&] {
        waited = self->waitThread(0);
        waitedForGood = self->waitThread(ULONG_MAX);
        started = self->startThread("itself");
    });
    self = &thread;
    EXPECT_TRUE(thread.startThread("inside"));
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_FALSE(waited);
    EXPECT_FALSE(waitedForGood);
    EXPECT_FALSE(started);
}

TEST(qvThread, JoinsWhenItIsDestroyed)
{
    for (int round = 0; round < 50; ++round) {
        int runs = 0;
        {
            FunctionThread thread([&] { ++runs; });
            ASSERT_TRUE(thread.startThread("joined"));
            ASSERT_TRUE(thread.waitThread(kLimitMs));
        }
        ASSERT_EQ(runs, 1);
    }
}

TEST(qvThread, CarriesTheNameOfItsStart)
{
    const struct
    {
        const char* name;
        std::string shown;
    } rows[] = {
        {"httpserver", "httpserver"},
        {"fifteen bytes..", "fifteen bytes.."},
        {"sixteen bytes...", "sixteen bytes.."},
        {"a name that is far too long for the kernel", "a name that is "},
        {nullptr, NameOfCallingThread()},
        {"", NameOfCallingThread()},
    };
    std::string shown;
    FunctionThread thread([&] { shown = NameOfCallingThread(); });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name ? row.name : "no name");
        ASSERT_TRUE(thread.startThread(row.name));
        ASSERT_TRUE(thread.waitThread(kLimitMs));
        EXPECT_EQ(shown, row.shown);
    }
}

// New threads get a stack that no machine has, for as long as this lives.
class NoThreadsLeft
{
public:
    NoThreadsLeft()
    {
        pthread_getattr_default_np(&mBefore);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        EXPECT_EQ(pthread_attr_setstacksize(&huge, 1UL << 47), 0);
        EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
        pthread_attr_destroy(&huge);
    }
    ~NoThreadsLeft()
    {
        pthread_setattr_default_np(&mBefore);
        pthread_attr_destroy(&mBefore);
    }

private:
    pthread_attr_t mBefore;
};

TEST(qvThread, IsAsBeforeWhenTheSystemHasNoThreadToGive)
{
    int runs = 0;
    FunctionThread thread([&] { ++runs; });
    {
        NoThreadsLeft noThreads;
        EXPECT_THROW(thread.startThread("none"), std::system_error);
    }
    EXPECT_TRUE(thread.waitThread(0));
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(thread.getRunNumber(), 0u);
    EXPECT_TRUE(thread.startThread("now"));
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_EQ(runs, 1);
}

TEST(qvThread, SleepsAtLeastAsLongAsAsked)
{
    for (const unsigned long ms : {0UL, 1UL, 40UL}) {
        SCOPED_TRACE(ms);
        const auto begin = Clock::now();
        qvThread::msleep(ms);
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(ms));
    }
}

TEST(qvThread, IdOfTheCallingThreadIsTheNumberThatTheKernelGaveIt)
{
    EXPECT_EQ(qvThread::CurrentThreadId(), std::to_string(gettid()));
    std::string number;
    std::string id;
    FunctionThread thread([&] {
        number = std::to_string(gettid());
        id = qvThread::CurrentThreadId();
    });
    EXPECT_TRUE(thread.startThread("id"));
    EXPECT_TRUE(thread.waitThread(kLimitMs));
    EXPECT_EQ(id, number);
}

TEST(qvThread, IdOfTheCallingThreadIsMadeOnceAndNeedsNoMemory)
{
    const std::string& id = qvThread::CurrentThreadId();
    const char* const text = id.data();
    EXPECT_EQ(&qvThread::CurrentThreadId(), &id);
    EXPECT_EQ(qvThread::CurrentThreadId().data(), text);
    const auto* const object = reinterpret_cast<const char*>(&id);
    EXPECT_TRUE(text >= object && text < object + sizeof id) << "not inside the object";
}

TEST(qvThread, IdsOfThreadsAliveDiffer)
{
    constexpr int kThreads = 8;
    std::mutex mutex;
    std::set<std::string> ids{qvThread::CurrentThreadId()};
    std::atomic<int> arrived{0};
    Latch latch;
    std::vector<std::unique_ptr<FunctionThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::make_unique<FunctionThread>([&] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                ids.insert(qvThread::CurrentThreadId());
            }
            if (++arrived == kThreads)
                latch.open();
            latch.wait();
        }));
        ASSERT_TRUE(threads.back()->startThread(nullptr));
    }
    for (auto& thread : threads)
        EXPECT_TRUE(thread->waitThread(kLimitMs));
    EXPECT_EQ(ids.size(), kThreads + 1u);
}

}  // namespace
}  // namespace qv::tests

// Called by waits with a limit: a definition in the program comes before the system's.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      clockid_t clock, const timespec* end)
{
    static const auto real =
        reinterpret_cast<decltype(&pthread_cond_clockwait)>(dlsym(RTLD_NEXT, __func__));
    auto* const delayed = std::exchange(qv::tests::tDelayedWait, nullptr);
    if (!delayed)
        return real(condition, mutex, clock, end);
    delayed->begun.open();
    const int result = real(condition, mutex, clock, end);
    pthread_mutex_unlock(mutex);
    delayed->mayReturn.wait();
    pthread_mutex_lock(mutex);
    return result;
}
