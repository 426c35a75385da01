// The callbacks that take an upload, and whether a worker calls them.
#ifndef WENDREL_KIT_SRC_BODYDELIVERY_H
#define WENDREL_KIT_SRC_BODYDELIVERY_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <functional>
#include <memory>
#include <string_view>

namespace qv::kit
{

// A turn is one call of the callbacks by a worker. At most one is queued or under way at a time;
// its callbacks live until it has ended. Any thread; its mutex is a leaf, no callback runs under
// it, nor is one destroyed.
class BodyDelivery
{
public:
    struct Callbacks
    {
        std::function<void(std::string_view)> onPiece;
        std::function<void()> onComplete;
    };
    using Pointer = std::shared_ptr<const Callbacks>;

    explicit BodyDelivery(Pointer callbacks) : mCallbacks(std::move(callbacks)) {}

    // There is something to deliver. True: the caller queues a turn.
    bool notify();

    // Of a turn: null when the delivery is over.
    Pointer callbacks() const;

    // The turn has ended, or could not be queued. True: the caller queues another one.
    bool endTurn(bool hasMore);

    // Ends the delivery. The caller destroys the callbacks.
    Pointer take();

private:
    mutable qvMutex mMutex;
    Pointer mCallbacks QV_GUARDED_BY(mMutex);        // null: the delivery is over
    bool mHasTurn QV_GUARDED_BY(mMutex) = false;     // queued or under way
    bool mIsNotified QV_GUARDED_BY(mMutex) = false;  // since the turn was queued
};

}  // namespace qv::kit

#endif
