// The connections of one daemon, by descriptor, and their deadlines.
#ifndef WENDREL_LISTENER_CONNECTIONTABLE_H
#define WENDREL_LISTENER_CONNECTIONTABLE_H

#include "listener/Connection.h"
#include "listener/DeadlineWheel.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace qv::impl
{

class MemoryBudget;

// Milliseconds; 0: none.
struct ConnectionLimits
{
    int64_t headMs = 0;
    int64_t idleMs = 0;
    int64_t bodyMs = 0;  // of silence; also the time before the rate counts
    uint64_t minBodyBytesPerSecond = 0;
    int64_t responseMs = 0;
    std::shared_ptr<MemoryBudget> memoryBudget = nullptr;  // that the applications' queues share
};

// Its lock is taken for each connection and when a deadline comes closer than the visit of the
// wheel; while it is held, no other lock is taken.
class ConnectionTable
{
public:
    using Pointer = std::shared_ptr<Connection>;

    ConnectionTable(const ConnectionLimits& limits, int64_t nowMs);

    const ConnectionLimits& getLimits() const { return mLimits; }

    // Adds a connection before it is given to the daemon. A record of the same descriptor is one
    // that the daemon has closed without taking it over; it is returned in `abandoned`.
    Pointer add(int descriptor, const Peer& peer, int64_t nowMs, Pointer& abandoned);

    // Null when there is none.
    Pointer find(int descriptor) const;

    // The daemon closes the connection. False when it had been removed.
    bool remove(int descriptor, const Connection& connection);

    // Sets the deadline of a connection. Any thread.
    void arm(Connection& connection, int64_t deadlineMs);

    // The first of the connections whose deadline has passed, which are visited again after
    // `repeatMs`; null when there is none. `takeNextExpired` has the others. Needs no memory.
    Pointer takeExpired(int64_t nowMs, int64_t repeatMs);
    static Pointer takeNextExpired(Connection& connection);

    // The connection with the lowest descriptor above `descriptor`, which is set to it; null when
    // there is none. Needs no memory.
    Pointer next(int& descriptor) const;

    // All connections of this moment.
    std::vector<Pointer> getAll() const;

    // Any thread, no lock, as the following.
    size_t getCount() const { return mCount; }

    // Connections of which the daemon can have an event.
    size_t getServedCount() const
    {
        const size_t count = mCount;
        return count - std::min<size_t>(mSuspended, count);
    }

    // Requests so far.
    uint64_t getRequestCount() const { return mRequests; }

    // Whether a request is in progress whose connection is not suspended. A request that begins or
    // ends meanwhile may be missed.
    bool isBusy() const { return mRequests - mEnded > mSuspended; }

    // Nothing was to be done at the listener's last look: the first request, or connection that is
    // resumed, ends the rest by an event for `wake`, which is set before there are connections.
    void setWake(int eventDescriptor) { mWake = eventDescriptor; }
    void setResting(bool isResting) { mIsResting = isResting; }
    bool isResting() const { return mIsResting; }

    // Counted first: either this thread sees the rest, or the listener the request.
    void countRequest()
    {
        ++mRequests;
        endRest();
    }
    void countEnd() { mEnded.fetch_add(1, std::memory_order_relaxed); }
    void countSuspended() { ++mSuspended; }
    void countResumed()
    {
        --mSuspended;
        endRest();
    }

private:
    void endRest()
    {
        if (mIsResting && mIsResting.exchange(false))
            eventfd_write(mWake, 1);
    }

    const ConnectionLimits mLimits;
    mutable qvMutex mMutex;
    std::map<int, Pointer> mConnections QV_GUARDED_BY(mMutex);
    DeadlineWheel mWheel QV_GUARDED_BY(mMutex);
    std::atomic<size_t> mCount{0};
    std::atomic<size_t> mSuspended{0};
    std::atomic<uint64_t> mRequests{0};
    std::atomic<uint64_t> mEnded{0};
    std::atomic<bool> mIsResting{false};
    int mWake = -1;
};

}  // namespace qv::impl

#endif
