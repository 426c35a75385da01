/// The owner of all requests of an application.
#ifndef WENDREL_KIT_REQUESTREAPER_H
#define WENDREL_KIT_REQUESTREAPER_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <thread>

namespace qv::kit
{

class Request;

/// Owns each request from its creation and deletes it after its worker has finished with it and
/// the daemon has completed it, whichever comes last.
///
/// Workers delete up to two requests each time they have finished one (`reap`), while the memory
/// of the requests is still in the processor's cache. A thread of the reaper deletes the rest 20 ms
/// after the first of them was over. Every operation takes constant time, however many requests are
/// open.
///
/// Destroy it when the daemon has stopped: requests that are left are deleted then.
class RequestReaper
{
public:
    /// A request and its place here.
    using List = std::list<std::unique_ptr<Request>>;

    /// Starts its thread; throws std::system_error when the system has none to give.
    RequestReaper();

    /// Deletes the requests that are left and joins its thread. When the daemon has stopped.
    ~RequestReaper();
    RequestReaper(const RequestReaper&) = delete;
    RequestReaper& operator=(const RequestReaper&) = delete;

    /// Takes ownership of a new request and returns it. Any thread.
    Request& add(std::unique_ptr<Request> request);

    /// The worker of the request has finished and will not use it again. Any thread.
    void finished(Request& request);

    /// The daemon has completed the request. Called by the request, with the mutex of its response
    /// device held: it is deleted after that has been released.
    void completed(Request& request);

    /// Deletes up to two requests that are over. Any thread that can wait for their destructors; a
    /// thread of the daemon cannot.
    void reap();

    /// Requests that have been added and not yet deleted. Any thread.
    size_t getOpenCount() const;

    /// Waits at most `limit` until there are none; returns whether there are none.
    bool waitUntilEmpty(std::chrono::milliseconds limit);

private:
    void release(Request& request);
    void run();
    void deleteAll(List& over);

    mutable qvMutex mMutex;
    qvWaitCondition mChanged;
    qvWaitCondition mDeleted;
    List mOpen QV_GUARDED_BY(mMutex);
    List mOver QV_GUARDED_BY(mMutex);
    size_t mCount QV_GUARDED_BY(mMutex) = 0;   // open, over, or being deleted
    bool mIdle QV_GUARDED_BY(mMutex) = false;  // its thread waits for a request that is over
    bool mStopping QV_GUARDED_BY(mMutex) = false;
    std::thread mThread;
};

}  // namespace qv::kit

#endif
