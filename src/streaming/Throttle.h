// The wait of a daemon thread for an application that has nothing to send yet.
#ifndef WENDREL_STREAMING_THROTTLE_H
#define WENDREL_STREAMING_THROTTLE_H

#include "request/ConnectionContext.h"

#include <cstdint>

namespace qv::impl
{

struct TestAccess;  // of the tests

// One record per daemon thread, shared by the dispatch and the content reader: any progress
// of any connection of the thread resets it.
class Throttle
{
public:
    // Unsuccessful polls return at once for this long after the first.
    static constexpr int64_t kGraceMs = 100;
    // Afterwards they have this spacing, and each sleeps at least kMinSleepMs.
    static constexpr int32_t kSpacingMs = 45;
    static constexpr int32_t kMinSleepMs = 10;
    static constexpr int32_t kFirstSleepMs = 46;

    static Throttle& OfThisThread();

    // The thread made progress: the next unsuccessful poll starts a new grace.
    void reset();

    // An unsuccessful poll at `nowMs` of the request `waiting`, which is only compared. Returns at
    // once during the grace, otherwise sleeps. When the first request of a wait is polled again,
    // all waiting requests of this thread have been polled without success: the processor is
    // yielded to the application.
    void pause(const void* waiting, int64_t nowMs);

    // How long to sleep at `nowMs` when the last sleep began at `lastSleepMs`.
    static int32_t SleepMs(int64_t nowMs, int64_t lastSleepMs);

private:
    friend struct TestAccess;

    int64_t mWaitSinceMs = kTimeNotSet;
    int64_t mLastSleepMs = kTimeNotSet;
    const void* mFirstWaiting = nullptr;  // since the wait began; only compared: it may be deleted
};

}  // namespace qv::impl

#endif
