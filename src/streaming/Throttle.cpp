// The pacing of unsuccessful polls.

#include "streaming/Throttle.h"

#include <qvSystem/qvThread.h>

#include <algorithm>
#include <thread>

namespace qv::impl
{

Throttle& Throttle::OfThisThread()
{
    thread_local Throttle throttle;
    return throttle;
}

void Throttle::reset()
{
    mWaitSinceMs = kTimeNotSet;
    mLastSleepMs = kTimeNotSet;
}

void Throttle::pause(const void* waiting, int64_t nowMs)
{
    if (mWaitSinceMs == kTimeNotSet) {
        mWaitSinceMs = nowMs;
        mLastSleepMs = nowMs;
        mFirstWaiting = waiting;
        return;
    }
    if (nowMs - mWaitSinceMs <= kGraceMs) {
        if (waiting == mFirstWaiting)
            std::this_thread::yield();
        return;
    }
    const int32_t sleepMs = SleepMs(nowMs, mLastSleepMs);
    mLastSleepMs = nowMs;
    qvThread::msleep(static_cast<unsigned long>(sleepMs));
}

int32_t Throttle::SleepMs(int64_t nowMs, int64_t lastSleepMs)
{
    if (lastSleepMs == kTimeNotSet)
        return kFirstSleepMs;
    // Required: 32-bit arithmetic, which wraps; done unsigned, where wrapping is defined.
    const uint32_t elapsedMs = static_cast<uint32_t>(nowMs) - static_cast<uint32_t>(lastSleepMs);
    return std::max(static_cast<int32_t>(static_cast<uint32_t>(kSpacingMs) - elapsedMs),
                    kMinSleepMs);
}

}  // namespace qv::impl
