/// Who deletes a request, and when.
#ifndef WENDREL_KIT_REQUESTKEEPER_H
#define WENDREL_KIT_REQUESTKEEPER_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <thread>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::kit
{

/// Deletes each request after its worker has finished with it and the daemon has completed it,
/// whichever comes last.
///
/// The daemon does not say which request it has completed: finished ones are looked at. Workers
/// look at two each time they have finished one (`reap`), so that its memory is used again while
/// it is still in the processor's cache. What they do not come to is left to a thread of the
/// keeper, which looks through all of them when enough has happened to pay for it (a quarter of
/// the list, at least 64 events) or 20 ms have gone by, and sleeps while nothing is due. Either
/// way a completion costs a constant time on average, however many requests are open.
///
/// Destroy it when the daemon has stopped: what is left is deleted then.
class RequestKeeper
{
public:
    /// Starts its thread.
    RequestKeeper();

    /// Deletes what is left and joins its thread. When the daemon has stopped.
    ~RequestKeeper();
    RequestKeeper(const RequestKeeper&) = delete;
    RequestKeeper& operator=(const RequestKeeper&) = delete;

    /// A request has been made; makes room for it, so that `finished` cannot fail. Any thread.
    void opened();

    /// The worker has finished with the request and will not touch it again; the keeper owns
    /// it from here. Any thread.
    void finished(std::unique_ptr<HttpBaseRequest> request);

    /// Deletes up to two requests that are over. Any thread that can wait for their destructors,
    /// which a thread of the daemon cannot.
    void reap();

    /// Call from `onRequestCompleted`, and only there.
    void completed();

    /// Requests that have been opened and not yet deleted. Any thread.
    size_t getOpenCount() const;

    /// Waits at most `limit` until there are none; returns whether there are none.
    bool waitUntilEmpty(std::chrono::milliseconds limit);

private:
    using List = std::list<std::unique_ptr<HttpBaseRequest>>;

    bool isSweepDue() const QV_REQUIRES(mMutex);
    bool doesSweepPay() const QV_REQUIRES(mMutex);
    bool mustWakeKeeper() const QV_REQUIRES(mMutex);
    void keep();
    void waitForNews() QV_REQUIRES(mMutex);
    void sweep();
    void deleteCompleted(List& looked);

    // The response device of a completing request is locked when `completed` takes this lock:
    // no request is asked anything under it.
    mutable qvMutex mMutex;
    qvWaitCondition mChanged;
    qvWaitCondition mDeleted;
    List mFinished QV_GUARDED_BY(mMutex);
    // An entry for each request that is not finished yet.
    List mRoom QV_GUARDED_BY(mMutex);
    size_t mOpen QV_GUARDED_BY(mMutex) = 0;
    uint64_t mCompletions QV_GUARDED_BY(mMutex) = 0;
    uint64_t mReaped QV_GUARDED_BY(mMutex) = 0;
    // Requests finished or completed since the last sweep began, or since none was left to find.
    uint64_t mNews QV_GUARDED_BY(mMutex) = 0;
    bool mIdle QV_GUARDED_BY(mMutex) = false;  // its thread waits until a sweep is due
    bool mStopping QV_GUARDED_BY(mMutex) = false;
    std::thread mThread;
};

}  // namespace qv::kit

#endif
