// Each operation calls the platform's own, and may let other threads run before and after.

#include "Shaking.h"

#include "Dice.h"

#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace stress
{

namespace
{

constexpr uint64_t kYieldOneIn = 12;
constexpr uint64_t kSleepOneIn = 4000;
constexpr uint64_t kMaxSleepUs = 100;

thread_local Dice tDice(0);
thread_local bool tShaken = false;

std::atomic<uint64_t> sYields{0};
std::atomic<uint64_t> sWaits{0};
std::atomic<uint64_t> sWaiting{0};

}  // namespace

void shakeThisThread(uint64_t seed)
{
    tDice = Dice(seed);
    tShaken = true;
}

void shake()
{
    if (!tShaken)
        return;
    const uint64_t thrown = tDice.next();
    if (thrown % kSleepOneIn == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(thrown / kSleepOneIn % kMaxSleepUs));
    else if (thrown % kYieldOneIn == 0)
        ::sched_yield();
    else
        return;
    sYields.fetch_add(1, std::memory_order_relaxed);
}

ShakingCounts shakingCounts()
{
    return {sYields, sWaits, sWaiting};
}

}  // namespace stress

namespace qv
{

using stress::shake;

qvMutexLocker::qvMutexLocker(qvMutex* mutex) : mMutex(mutex), mHeld(true)
{
    shake();
    mMutex->lock();
    shake();
}

qvMutexLocker::~qvMutexLocker()
{
    unlock();
}

void qvMutexLocker::unlock()
{
    if (!mHeld)
        return;
    mHeld = false;
    shake();
    mMutex->unlock();
    shake();
}

void qvMutexLocker::relock()
{
    if (mHeld)
        return;
    shake();
    mMutex->lock();
    mHeld = true;
    shake();
}

bool qvWaitCondition::wait(qvMutex* mutex, unsigned long timeoutMs)
{
    shake();
    std::unique_lock<std::mutex> lock(mutex->mMutex, std::adopt_lock);
    bool woken = true;
    if (timeoutMs == kNoTimeout) {
        ++stress::sWaits;
        ++stress::sWaiting;
        mCondition.wait(lock);
        --stress::sWaiting;
    } else {
        woken = mCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs)) ==
                std::cv_status::no_timeout;
    }
    lock.release();
    shake();
    return woken;
}

void qvWaitCondition::wakeAll()
{
    shake();
    mCondition.notify_all();
    shake();
}

}  // namespace qv
