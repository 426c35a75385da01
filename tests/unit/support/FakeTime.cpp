// The replaced operations of the platform: a definition in the program comes before the one in
// a shared library. The real ones are reached through the dynamic linker.

#include "support/FakeTime.h"

#include "support/TestsOwn.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>
#include <qvSystem/qvWaitCondition.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include <dlfcn.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qv::tests
{

namespace
{

constexpr size_t kMaxRecords = 100000;

thread_local size_t tYields = 0;

}  // namespace

struct FakeTime::State
{
    mutable std::mutex mutex;  // guards all below
    int64_t nowMs = 0;
    size_t waitCount = 0;
    std::vector<unsigned long> sleeps;
    std::vector<Wait> waits;
    std::map<const qvWaitCondition*, size_t> wakes;         // since the beginning
    std::map<const qvWaitCondition*, size_t> clearedWakes;  // of these, before clearRecords
    std::function<void(Wait&)> waitHook;
    std::function<void(unsigned long)> sleepHook;

    void sleep(unsigned long ms);
    bool wait(qvWaitCondition* condition, qvMutex* held, unsigned long timeoutMs) QV_REQUIRES(held);
    Wait beginWait(qvWaitCondition* condition, unsigned long timeoutMs, size_t& wakesBefore);
    void endWait(Wait& wait, size_t wakesBefore);
};

namespace
{

std::mutex& InstanceMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::shared_ptr<FakeTime::State>& Instance()
{
    static auto* instance = new std::shared_ptr<FakeTime::State>;
    return *instance;
}

std::shared_ptr<FakeTime::State> Current()
{
    std::lock_guard<std::mutex> lock(InstanceMutex());
    return Instance();
}

template <typename Function> Function Real(const char* mangled)
{
    void* found = dlsym(RTLD_NEXT, mangled);
    if (found == nullptr) {
        std::fprintf(stderr, "FakeTime: %s is not in a shared library\n", mangled);
        std::abort();
    }
    return reinterpret_cast<Function>(found);
}

}  // namespace

void FakeTime::State::sleep(unsigned long ms)
{
    const TestsOwn own;
    std::function<void(unsigned long)> hook;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (sleeps.size() < kMaxRecords)
            sleeps.push_back(ms);
        hook = sleepHook;
    }
    if (hook)
        hook(ms);
    std::lock_guard<std::mutex> lock(mutex);
    nowMs += static_cast<int64_t>(ms);
}

FakeTime::Wait FakeTime::State::beginWait(qvWaitCondition* condition, unsigned long timeoutMs,
                                          size_t& wakesBefore)
{
    std::lock_guard<std::mutex> lock(mutex);
    Wait wait;
    wait.condition = condition;
    wait.timeoutMs = timeoutMs;
    wait.number = waitCount++;
    wait.nowMs = nowMs;
    wakesBefore = wakes[condition];
    return wait;
}

void FakeTime::State::endWait(Wait& wait, size_t wakesBefore)
{
    std::lock_guard<std::mutex> lock(mutex);
    // A wait without timeout can only end by being woken.
    wait.woken = wait.woken || wakes[wait.condition] != wakesBefore ||
                 wait.timeoutMs == qvWaitCondition::kNoTimeout;
    if (!wait.woken)
        nowMs += static_cast<int64_t>(wait.timeoutMs);
    if (waits.size() < kMaxRecords)
        waits.push_back(wait);
}

bool FakeTime::State::wait(qvWaitCondition* condition, qvMutex* held, unsigned long timeoutMs)
{
    const TestsOwn own;
    size_t wakesBefore = 0;
    Wait current = beginWait(condition, timeoutMs, wakesBefore);
    std::function<void(Wait&)> hook;
    {
        std::lock_guard<std::mutex> lock(mutex);
        hook = waitHook;
    }
    held->unlock();
    if (hook)
        hook(current);
    else
        sched_yield();
    held->lock();
    endWait(current, wakesBefore);
    return current.woken;
}

FakeTime::FakeTime(int64_t nowMs) : mState(std::make_shared<State>())
{
    mState->nowMs = nowMs;
    std::lock_guard<std::mutex> lock(InstanceMutex());
    if (Instance()) {
        std::fprintf(stderr, "FakeTime: there is one already\n");
        std::abort();
    }
    Instance() = mState;
}

FakeTime::~FakeTime()
{
    std::lock_guard<std::mutex> lock(InstanceMutex());
    Instance().reset();
}

int64_t FakeTime::nowMs() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->nowMs;
}

void FakeTime::setNowMs(int64_t nowMs)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->nowMs = nowMs;
}

void FakeTime::advanceMs(int64_t ms)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->nowMs += ms;
}

void FakeTime::onWait(std::function<void(Wait&)> hook)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->waitHook = std::move(hook);
}

void FakeTime::onSleep(std::function<void(unsigned long)> hook)
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->sleepHook = std::move(hook);
}

std::vector<unsigned long> FakeTime::sleeps() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->sleeps;
}

std::vector<FakeTime::Wait> FakeTime::waits() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->waits;
}

std::vector<unsigned long> FakeTime::waitTimeouts() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    std::vector<unsigned long> timeouts;
    for (const Wait& wait : mState->waits)
        timeouts.push_back(wait.timeoutMs);
    return timeouts;
}

size_t FakeTime::wakes(const qvWaitCondition* condition) const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->wakes[condition] - mState->clearedWakes[condition];
}

size_t FakeTime::wakes() const
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    size_t all = 0;
    for (const auto& [condition, count] : mState->wakes)
        all += count - mState->clearedWakes[condition];
    return all;
}

void FakeTime::clearRecords()
{
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->sleeps.clear();
    mState->waits.clear();
    mState->clearedWakes = mState->wakes;
}

size_t FakeTime::YieldsOfThisThread()
{
    return tYields;
}

}  // namespace qv::tests

int sched_yield() noexcept
{
    ++qv::tests::tYields;
    return static_cast<int>(::syscall(SYS_sched_yield));
}

namespace qv
{

int64_t qvSystemUtils::GetTimeBaseMs()
{
    if (const auto state = tests::Current()) {
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->nowMs;
    }
    static const auto real = tests::Real<int64_t (*)()>("_ZN2qv13qvSystemUtils13GetTimeBaseMsEv");
    return real();
}

void qvThread::msleep(unsigned long ms)
{
    if (const auto state = tests::Current()) {
        state->sleep(ms);
        return;
    }
    static const auto real = tests::Real<void (*)(unsigned long)>("_ZN2qv8qvThread6msleepEm");
    real(ms);
}

bool qvWaitCondition::wait(qvMutex* mutex, unsigned long timeoutMs)
{
    if (const auto state = tests::Current())
        return state->wait(this, mutex, timeoutMs);
    static const auto real = tests::Real<bool (*)(qvWaitCondition*, qvMutex*, unsigned long)>(
        "_ZN2qv15qvWaitCondition4waitEPNS_7qvMutexEm");
    return real(this, mutex, timeoutMs);
}

void qvWaitCondition::wakeAll()
{
    if (const auto state = tests::Current()) {
        const tests::TestsOwn own;
        std::lock_guard<std::mutex> lock(state->mutex);
        ++state->wakes[this];
    }
    static const auto real =
        tests::Real<void (*)(qvWaitCondition*)>("_ZN2qv15qvWaitCondition7wakeAllEv");
    real(this);
}

}  // namespace qv
