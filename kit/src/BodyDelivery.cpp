// Turns of an upload: as many as there are pieces, one at a time.

#include "BodyDelivery.h"

#include <utility>

namespace qv::kit
{

bool BodyDelivery::notify()
{
    const qvMutexLocker locker(&mMutex);
    if (!mCallbacks)
        return false;
    mIsNotified = mHasTurn;
    return !std::exchange(mHasTurn, true);
}

BodyDelivery::Pointer BodyDelivery::callbacks() const
{
    const qvMutexLocker locker(&mMutex);
    return mCallbacks;
}

bool BodyDelivery::endTurn(bool hasMore)
{
    const qvMutexLocker locker(&mMutex);
    const bool isNotified = std::exchange(mIsNotified, false);
    mHasTurn = mCallbacks && (hasMore || isNotified);
    return mHasTurn;
}

BodyDelivery::Pointer BodyDelivery::take()
{
    const qvMutexLocker locker(&mMutex);
    return std::exchange(mCallbacks, nullptr);
}

}  // namespace qv::kit
