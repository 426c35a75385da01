// The counting, and the replaced functions: a definition in the program comes before the one in a
// shared library.

#include "support/FailingCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>

#if defined(__SANITIZE_THREAD__)
#define WENDREL_TESTS_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WENDREL_TESTS_THREAD_SANITIZER 1
#endif
#endif
#ifndef WENDREL_TESTS_THREAD_SANITIZER
#define WENDREL_TESTS_THREAD_SANITIZER 0
#endif

#if WENDREL_TESTS_THREAD_SANITIZER || defined(__SANITIZE_ADDRESS__)
#define WENDREL_TESTS_OWN_MALLOC 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WENDREL_TESTS_OWN_MALLOC 0
#endif
#endif
#ifndef WENDREL_TESTS_OWN_MALLOC
#define WENDREL_TESTS_OWN_MALLOC 1
#endif

#if WENDREL_TESTS_OWN_MALLOC
// The C library's own, under the names that it exports for this purpose.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);
}
#endif

namespace qv::tests
{
namespace
{

constexpr size_t kMaxCalls = 1000;
constexpr const char* kKindNames[kFailingKinds] = {"new",     "malloc", "thread", "send",
                                                   "receive", "poll",   "open",   "daemon"};

// Set on the thread under test only.
constinit thread_local bool tArmed = false;
constinit thread_local bool tTracked = false;

struct Plan
{
    size_t failAt = 0;  // number of the call that fails, from 1 on; 0: none
    bool fromThenOn = false;
    size_t calls = 0;
    bool failed = false;
    Failing kind = Failing::New;  // of the first that failed
    bool threw = false;
    bool forgivesMalloc = false;
};
Plan gPlan;

std::atomic<bool> gRefusesThreads{false};

std::atomic<std::chrono::seconds> gLongestRun{std::chrono::seconds(60)};

bool isMemory(Failing kind)
{
    return kind == Failing::New || kind == Failing::Malloc;
}

bool isAlike(Failing a, Failing b)
{
    return a == b || (isMemory(a) && isMemory(b));
}

// The memory that the thread under test has allocated in this run and nobody has freed yet.
class Table
{
public:
    void reset()
    {
        const Lock lock(mBusy);
        std::memset(mSlots, 0, sizeof mSlots);
        mCount = 0;
        mOverflown = false;
        mActive = true;
    }

    void close() { mActive = false; }

    void add(void* memory, size_t size, bool isMalloc)
    {
        const Lock lock(mBusy);
        for (size_t i = 0; i < kSlots; ++i) {
            Slot& slot = mSlots[(hash(memory) + i) % kSlots];
            if (isUsed(slot))
                continue;
            slot = {memory, size, isMalloc};
            ++mCount;
            return;
        }
        mOverflown = true;
    }

    void remove(void* memory)
    {
        if (!mActive.load(std::memory_order_relaxed))
            return;
        const Lock lock(mBusy);
        for (size_t i = 0; i < kSlots; ++i) {
            Slot& slot = mSlots[(hash(memory) + i) % kSlots];
            if (!slot.memory)
                return;
            if (slot.memory != memory)
                continue;
            slot.memory = this;  // was used: look-ups go on behind it
            --mCount;
            return;
        }
    }

    std::string describe(bool withMalloc)
    {
        const Lock lock(mBusy);
        std::string text = mOverflown ? "too many to count" : "";
        for (const Slot& slot : mSlots) {
            if (isUsed(slot) && (withMalloc || !slot.isMalloc))
                text += (text.empty() ? "" : ", ") + std::to_string(slot.size) + " bytes";
        }
        return text;
    }

private:
    static constexpr size_t kSlots = 1 << 14;

    struct Slot
    {
        void* memory;
        size_t size;
        bool isMalloc;
    };

    // Not a mutex: those may be watched by a sanitizer that allocates.
    class Lock
    {
    public:
        explicit Lock(std::atomic_flag& flag) : mFlag(flag)
        {
            while (mFlag.test_and_set(std::memory_order_acquire))
                sched_yield();
        }
        ~Lock() { mFlag.clear(std::memory_order_release); }

    private:
        std::atomic_flag& mFlag;
    };

    bool isUsed(const Slot& slot) const { return slot.memory && slot.memory != this; }
    static size_t hash(void* memory)
    {
        return reinterpret_cast<uintptr_t>(memory) / 16 * 2654435761u;
    }

    std::atomic_flag mBusy;
    std::atomic<bool> mActive{false};
    Slot mSlots[kSlots]{};
    size_t mCount = 0;
    bool mOverflown = false;
};
constinit Table gTable;

char gWatched[256];

// Ends the program when a run takes too long: from a thread of its own, as a run that waits for a
// lock takes no signal under every sanitizer.
class Watchdog
{
public:
    Watchdog() : mThread([this] { watch(); }) {}

    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnds = true;
        }
        mChanged.notify_all();
        mThread.join();
    }

    void begin() { mBegan = Clock::now().time_since_epoch().count(); }
    void end() { mBegan = 0; }

private:
    using Clock = std::chrono::steady_clock;

    void watch()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mChanged.wait_for(lock, std::chrono::milliseconds(200), [this] { return mEnds; })) {
            const Clock::rep began = mBegan;
            if (began == 0 ||
                Clock::now() - Clock::time_point(Clock::duration(began)) < gLongestRun.load())
                continue;
            std::fprintf(stderr, "\nA run takes too long: %s\n", gWatched);
            std::abort();
        }
    }

    std::atomic<Clock::rep> mBegan{0};
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mEnds = false;
    std::thread mThread;  // last: uses all above
};

Watchdog& watchdog()
{
    static Watchdog theWatchdog;
    return theWatchdog;
}

bool isCounted()
{
    return tArmed && !TestsOwn::isActive();
}

bool isTracked()
{
    return tTracked && !TestsOwn::isActive();
}

bool countCall(Failing kind)
{
    const bool isTheOne = ++gPlan.calls == gPlan.failAt;
    const bool isLater =
        gPlan.failed && gPlan.fromThenOn && gPlan.failAt != 0 && isAlike(kind, gPlan.kind);
    if (isTheOne) {
        gPlan.failed = true;
        gPlan.kind = kind;
    }
    return isTheOne || isLater;
}

struct Tally
{
    size_t points[kFailingKinds] = {};

    size_t all() const
    {
        size_t sum = 0;
        for (const size_t each : points)
            sum += each;
        return sum;
    }
};

int failuresSoFar()
{
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// Returns the list of allocations that have not been freed.
std::string runOnce(const char* operation, const std::function<void(Attempt&)>& body, Plan plan)
{
    gPlan = plan;
    std::snprintf(gWatched, sizeof gWatched, "%s, failing call %zu%s", operation, plan.failAt,
                  plan.fromThenOn ? " and all later" : "");
    SCOPED_TRACE(gWatched);
    const int failuresBefore = failuresSoFar();
    watchdog().begin();
    gTable.reset();
    tTracked = true;
    {
        Attempt attempt;
        body(attempt);
    }
    tTracked = false;
    gTable.close();
    watchdog().end();
    EXPECT_TRUE(gPlan.failed || !gPlan.threw) << "an exception although nothing has failed";
    // Descriptions of failures are kept until the end.
    return failuresSoFar() == failuresBefore ? gTable.describe(!gPlan.forgivesMalloc)
                                             : std::string();
}

// An object may be created once per process, or per thread. Memory that is still allocated after
// the second of two equal runs is leaked.
void run(const char* operation, const std::function<void(Attempt&)>& body, Plan plan)
{
    std::string left = runOnce(operation, body, plan);
    if (!left.empty())
        left = runOnce(operation, body, plan);
    EXPECT_EQ(left, "") << "not freed: " << gWatched;
}

void report(const char* operation, const Tally& tally)
{
    std::string kinds;
    for (size_t kind = 0; kind < kFailingKinds; ++kind) {
        if (tally.points[kind] != 0)
            kinds += (kinds.empty() ? "" : ", ") + std::to_string(tally.points[kind]) + " " +
                     kKindNames[kind];
    }
    std::printf("%-60s %4zu failing calls%s%s%s\n", operation, tally.all(),
                kinds.empty() ? "" : " (", kinds.c_str(), kinds.empty() ? "" : ")");
    std::fflush(stdout);
}

}  // namespace

bool CanFailMalloc()
{
    return WENDREL_TESTS_OWN_MALLOC;
}

NoThreads::NoThreads()
{
    gRefusesThreads = true;
}

NoThreads::~NoThreads()
{
    gRefusesThreads = false;
}

bool ShouldFail(Failing kind)
{
    return tArmed && countCall(kind);
}

Attempt::Armed::Armed()
{
    tArmed = true;
}

Attempt::Armed::~Armed()
{
    tArmed = false;
}

void Attempt::takeException()
{
    gPlan.threw = true;
}

void Attempt::checkCode(const std::system_error& error)
{
    const TestsOwn own;
    EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again) << error.what();
    EXPECT_TRUE(gPlan.failed && gPlan.kind == Failing::ThreadStart) << error.what();
}

bool Attempt::hasFailed() const
{
    return gPlan.failed;
}

bool Attempt::hasFailed(Failing kind) const
{
    return gPlan.failed && gPlan.kind == kind;
}

void Attempt::forgiveMalloc()
{
    gPlan.forgivesMalloc = true;
}

void ShortenRuns(unsigned int seconds)
{
    gLongestRun = std::chrono::seconds(seconds);
}

void FailEachCall(const char* operation, const std::function<void(Attempt&)>& body, Points points)
{
    run(operation, body, {});
    Tally tally;
    for (bool isClean = false; !isClean && !testing::Test::HasFatalFailure();) {
        for (const bool fromThenOn : {false, true}) {
            Plan plan;
            plan.failAt = tally.all() + 1;
            plan.fromThenOn = fromThenOn;
            run(operation, body, plan);
            if (fromThenOn && gPlan.failed)
                ++tally.points[static_cast<size_t>(gPlan.kind)];
            isClean = !gPlan.failed;
            if (isClean)
                break;
        }
        if (tally.all() > kMaxCalls) {
            ADD_FAILURE() << operation << ": no clean run after " << tally.all()
                          << " failing calls";
            break;
        }
    }
    report(operation, tally);
    testing::Test::RecordProperty(std::string("failing calls: ") + operation,
                                  static_cast<int>(tally.all()));
    EXPECT_EQ(tally.all() != 0, points == Points::Some) << operation;
}

namespace
{

void* allocateOrThrow(size_t size)
{
    if (isCounted() && countCall(Failing::New))
        throw std::bad_alloc();
#if WENDREL_TESTS_OWN_MALLOC
    void* memory = __libc_malloc(std::max<size_t>(size, 1));
#else
    void* memory = std::malloc(std::max<size_t>(size, 1));
#endif
    if (!memory)
        throw std::bad_alloc();
    if (isTracked())
        gTable.add(memory, size, false);
    return memory;
}

void* allocateOrNull(size_t size) noexcept
{
    try {
        return allocateOrThrow(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void release(void* memory) noexcept
{
    if (!memory)
        return;
    gTable.remove(memory);
#if WENDREL_TESTS_OWN_MALLOC
    __libc_free(memory);
#else
    std::free(memory);
#endif
}

}  // namespace
}  // namespace qv::tests

using qv::tests::Failing;

void* operator new(size_t size)
{
    return qv::tests::allocateOrThrow(size);
}

void* operator new[](size_t size)
{
    return qv::tests::allocateOrThrow(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return qv::tests::allocateOrNull(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return qv::tests::allocateOrNull(size);
}

void operator delete(void* memory) noexcept
{
    qv::tests::release(memory);
}

void operator delete[](void* memory) noexcept
{
    qv::tests::release(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    qv::tests::release(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    qv::tests::release(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    qv::tests::release(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    qv::tests::release(memory);
}

extern "C" {

#if WENDREL_TESTS_OWN_MALLOC

void* malloc(size_t size)
{
    if (qv::tests::isCounted() && qv::tests::countCall(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* memory = __libc_malloc(size);
    if (memory && qv::tests::isTracked())
        qv::tests::gTable.add(memory, size, true);
    return memory;
}

void* calloc(size_t count, size_t size)
{
    if (qv::tests::isCounted() && qv::tests::countCall(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* memory = __libc_calloc(count, size);
    if (memory && qv::tests::isTracked())
        qv::tests::gTable.add(memory, count * size, true);
    return memory;
}

void* realloc(void* memory, size_t size)
{
    if (qv::tests::isCounted() && qv::tests::countCall(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (memory)
        qv::tests::gTable.remove(memory);
    void* moved = __libc_realloc(memory, size);
    if (moved && qv::tests::isTracked())
        qv::tests::gTable.add(moved, size, true);
    return moved;
}

void free(void* memory)
{
    qv::tests::release(memory);
}

#endif

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept
{
    using Real = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "pthread_create"));
    if (qv::tests::gRefusesThreads ||
        (qv::tests::isCounted() && qv::tests::countCall(Failing::ThreadStart)))
        return EAGAIN;
    // The C library reuses the memory of a thread for the next thread.
    const qv::tests::TestsOwn own;
    return real(thread, attributes, start, argument);
}

FILE* fopen(const char* path, const char* mode)
{
    using Real = FILE* (*)(const char*, const char*);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fopen"));
    if (qv::tests::isCounted() && qv::tests::countCall(Failing::Open)) {
        errno = EMFILE;
        return nullptr;
    }
    return real(path, mode);
}
}
