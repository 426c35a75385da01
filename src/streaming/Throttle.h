// How a daemon thread waits for an application that has nothing to send yet.
#ifndef WENDREL_STREAMING_THROTTLE_H
#define WENDREL_STREAMING_THROTTLE_H

#include "request/ConnectionContext.h"

#include <cstdint>

namespace qv::impl
{

// One record per daemon thread, shared by the dispatch and the content reader: any progress
// of any connection of the thread resets it.
class Throttle
{
public:
    // Fruitless calls return at once for this long after the first.
    static constexpr int64_t kGraceMs = 100;
    // Afterwards they are spaced like this, sleeping at least kLeastSleepMs each.
    static constexpr int32_t kSpacingMs = 45;
    static constexpr int32_t kLeastSleepMs = 10;
    static constexpr int32_t kFirstSleepMs = 46;

    static Throttle& OfThisThread();

    // The thread made progress: the next fruitless call starts a new grace.
    void reset();

    // A fruitless call at `nowMs` for `waiting`, which only tells one request from another. Returns
    // at once during the grace, otherwise sleeps. When the first one of a wait comes round again,
    // all that wait on this thread have been asked in vain: the processor is offered to the
    // application, which may need it to get ready.
    void pause(const void* waiting, int64_t nowMs);

    int64_t waitSinceMs() const { return mWaitSinceMs; }
    int64_t lastSleepMs() const { return mLastSleepMs; }

    // How long to sleep at `nowMs` when the last sleep began at `lastSleepMs`.
    static int32_t SleepMs(int64_t nowMs, int64_t lastSleepMs);

private:
    int64_t mWaitSinceMs = kTimeNotSet;
    int64_t mLastSleepMs = kTimeNotSet;
    const void* mFirstWaiting = nullptr;  // since the wait began; only compared: it may be gone
};

}  // namespace qv::impl

#endif
