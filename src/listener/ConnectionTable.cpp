// Connections by descriptor.

#include "listener/ConnectionTable.h"

#include <algorithm>
#include <utility>

namespace qv::impl
{

ConnectionTable::ConnectionTable(const ConnectionLimits& limits, int64_t nowMs)
    : mLimits(limits), mWheel(nowMs)
{}

ConnectionTable::Pointer ConnectionTable::add(int descriptor, const Peer& peer, int64_t nowMs,
                                              Pointer& abandoned)
{
    Pointer added = std::make_shared<Connection>(*this, descriptor, peer);
    const int64_t deadlineMs = mLimits.headMs == 0 ? kNoDeadline : nowMs + mLimits.headMs;
    added->deadlineMs = deadlineMs;
    const qvMutexLocker locker(&mMutex);
    Pointer& place = mConnections[descriptor];
    if (place)
        mWheel.remove(*place);
    else
        ++mCount;
    abandoned = std::exchange(place, added);
    mWheel.set(*added, deadlineMs);
    return added;
}

ConnectionTable::Pointer ConnectionTable::find(int descriptor) const
{
    const qvMutexLocker locker(&mMutex);
    const auto found = mConnections.find(descriptor);
    return found == mConnections.end() ? nullptr : found->second;
}

bool ConnectionTable::remove(int descriptor, const Connection& connection)
{
    Pointer removed;  // destroyed without the lock
    const qvMutexLocker locker(&mMutex);
    const auto found = mConnections.find(descriptor);
    if (found == mConnections.end() || found->second.get() != &connection)
        return false;
    removed = std::move(found->second);
    mWheel.remove(*removed);
    mConnections.erase(found);
    --mCount;
    return true;
}

// A later deadline than the visit needs no change of the wheel: the visit finds it. The deadline is
// written before the visit is read, and takeExpired does both the other way round: one of the two
// threads sees the value of the other.
void ConnectionTable::arm(Connection& connection, int64_t deadlineMs)
{
    connection.deadlineMs = deadlineMs;
    if (deadlineMs >= connection.getVisitMs())
        return;
    const qvMutexLocker locker(&mMutex);
    if (connection.isInWheel())
        mWheel.set(connection, std::min<int64_t>(deadlineMs, connection.deadlineMs));
}

ConnectionTable::Pointer ConnectionTable::takeExpired(int64_t nowMs, int64_t repeatMs)
{
    Pointer first;
    Pointer* last = &first;
    const qvMutexLocker locker(&mMutex);
    while (DeadlineWheel::Entry* const entry = mWheel.takeDue(nowMs)) {
        auto& connection = static_cast<Connection&>(*entry);
        const int64_t deadlineMs = connection.deadlineMs;
        const bool isExpired = deadlineMs <= nowMs;
        const int64_t visitMs = isExpired ? nowMs + repeatMs : deadlineMs;
        mWheel.set(connection, visitMs);
        // Also one that has passed already: the thread that arms it may have been interrupted.
        if (const int64_t latest = connection.deadlineMs; latest != deadlineMs && latest < visitMs)
            mWheel.set(connection, latest);
        if (isExpired && !std::exchange(connection.isExpired, true)) {
            *last = connection.shared_from_this();
            last = &connection.nextExpired;
        }
    }
    return first;
}

ConnectionTable::Pointer ConnectionTable::takeNextExpired(Connection& connection)
{
    connection.isExpired = false;
    return std::move(connection.nextExpired);
}

ConnectionTable::Pointer ConnectionTable::next(int& descriptor) const
{
    const qvMutexLocker locker(&mMutex);
    const auto found = mConnections.upper_bound(descriptor);
    if (found == mConnections.end())
        return nullptr;
    descriptor = found->first;
    return found->second;
}

std::vector<ConnectionTable::Pointer> ConnectionTable::getAll() const
{
    const qvMutexLocker locker(&mMutex);
    std::vector<Pointer> all;
    all.reserve(mConnections.size());
    for (const auto& entry : mConnections)
        all.push_back(entry.second);
    return all;
}

}  // namespace qv::impl
